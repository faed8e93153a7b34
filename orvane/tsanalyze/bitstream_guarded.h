// The table library's headers with the places replaced where a crafted descriptor would hang a
// reader. Included by the tables' room alone.
//
// Some validators add up the sizes of a descriptor's elements in eight bits: they never end when a
// size comes to 0 modulo 256, and take for valid what prints tens of thousands of lines when it
// comes to 1. An element that is larger than what is left of its descriptor is not valid; the
// guards below say so before the library's own validator runs.
#pragma once

#include <cstddef>
#include <cstdint>

#define desc45_validate bitstream_desc45_validate
#define desc51_validate bitstream_desc51_validate
#define desc5b_validate bitstream_desc5b_validate
#define desc5d_validate bitstream_desc5d_validate
#define desc5e_validate bitstream_desc5e_validate
#define desc6c_validate bitstream_desc6c_validate
#define desc6d_validate bitstream_desc6d_validate
#include <bitstream/common.h>
#include <bitstream/mpeg/psi/descriptors.h>

#include <bitstream/dvb/si/desc_45.h>
#include <bitstream/dvb/si/desc_51.h>
#include <bitstream/dvb/si/desc_5b.h>
#include <bitstream/dvb/si/desc_5c.h> // its validator is that of 5b
#include <bitstream/dvb/si/desc_5d.h>
#include <bitstream/dvb/si/desc_5e.h>
#include <bitstream/dvb/si/desc_6c.h>
#include <bitstream/dvb/si/desc_6d.h>
#include <bitstream/dvb/si/numbers.h>
#include <bitstream/dvb/si/strings.h>
#undef desc45_validate
#undef desc51_validate
#undef desc5b_validate
#undef desc5d_validate
#undef desc5e_validate
#undef desc6c_validate
#undef desc6d_validate

// Walks the elements of a descriptor as its validator does; false when one would reach past the
// end. `element_size` gives an element's size before it is cut to eight bits.
template <typename SizeOf>
static bool elements_fit(const uint8_t *desc, size_t header, SizeOf element_size)
{
    const uint8_t *element = desc + header;
    int left = desc_get_length(desc) - static_cast<int>(header - DESC_HEADER_SIZE);
    while (left > 0) {
        const int size = static_cast<int>(element_size(element));
        if (size > left)
            return false;
        left -= size;
        element += size;
    }
    return true;
}

static inline unsigned mosaic_cell_size(const uint8_t *cell)
{
    unsigned size = DESC51_DATA_SIZE + desc51n_get_elementary_cell_field_length(cell);
    switch (desc51n_get_cell_linkage_info(cell)) {
    case 1:
        return size + 2;
    case 2:
    case 3:
        return size + 6;
    case 4:
        return size + 8;
    default:
        return size;
    }
}

static inline unsigned service_name_size(const uint8_t *element)
{
    return 0u + DESC5D_DATA_SIZE + desc5dn_get_provider_name_length(element) +
           desc5dn_get_service_name_length(element);
}

#define GUARDED_VALIDATOR(id, header, size)                                                        \
    static inline bool desc##id##_validate(const uint8_t *desc)                                    \
    {                                                                                              \
        return elements_fit(desc, header, [](const uint8_t *e) -> unsigned { return size; }) &&    \
               bitstream_desc##id##_validate(desc);                                                \
    }

GUARDED_VALIDATOR(45, DESC45_HEADER_SIZE, 0u + DESC45_DATA_SIZE + desc45n_get_data_length(e))
GUARDED_VALIDATOR(51, DESC51_HEADER_SIZE, mosaic_cell_size(e))
GUARDED_VALIDATOR(5b, DESC5B_HEADER_SIZE, 0u + DESC5B_DATA_SIZE + desc5bn_get_networkname_length(e))
GUARDED_VALIDATOR(5d, DESC5D_HEADER_SIZE, service_name_size(e))
GUARDED_VALIDATOR(5e, DESC5E_HEADER_SIZE, 0u + DESC5E_DATA_SIZE + desc5en_get_text_length(e))
GUARDED_VALIDATOR(6c, DESC6C_HEADER_SIZE,
                  0u + DESC6C_DATA_SIZE + desc6cn_get_subcell_info_loop_length(e))
GUARDED_VALIDATOR(6d, DESC6D_HEADER_SIZE,
                  0u + DESC6D_DATA_SIZE + desc6dn_get_subcell_info_loop_length(e))
#undef GUARDED_VALIDATOR

#include <bitstream/mpeg/psi/pat.h>
#include <bitstream/mpeg/psi/pat_print.h>
#include <bitstream/mpeg/psi/pmt.h>
#include <bitstream/mpeg/psi/pmt_print.h>
#include <bitstream/mpeg/ts.h>
