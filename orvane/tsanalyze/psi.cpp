#include "tsanalyze/psi.h"

#include "tsanalyze/bitstream_guarded.h"

#include <libtarnlink/strops.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

// Character-set callback of the printers: the bytes as they are.
char *copy_bytes(void * /*opaque*/, const char * /*encoding*/, char *string, size_t length)
{
    return strndup(string, length);
}

// Whether one of the descriptors of a PMT's loop is as asked for. In one pass: the library looks
// for each descriptor from the start of the loop again.
template <typename Predicate>
bool any_descriptor(uint8_t *descs, Predicate is_asked_for)
{
    const uint8_t *desc = descs + DESCS_HEADER_SIZE;
    const uint8_t *end = desc + descs_get_length(descs);
    for (; end - desc >= DESC_HEADER_SIZE; desc += DESC_HEADER_SIZE + desc_get_length(desc))
        if (is_asked_for(desc))
            return true;
    return false;
}

// Whether a descriptor is of a kind of audio in private data (ETSI EN 300 468, annex D).
bool is_of_audio(const uint8_t *desc)
{
    constexpr uint8_t ac3 = 0x6a, eac3 = 0x7a, dts = 0x7b, aac = 0x7c;
    constexpr uint8_t extension = 0x7f, dts_hd = 0x0e, dts_neural = 0x0f, ac4 = 0x15,
                      dts_uhd = 0x21;
    const uint8_t tag = desc_get_tag(desc);
    const uint8_t kind = tag == extension && desc_get_length(desc) > 0 ? desc[2] : 0;
    return tag == ac3 || tag == eac3 || tag == dts || tag == aac || kind == dts_hd ||
           kind == dts_neural || kind == ac4 || kind == dts_uhd;
}

// Whether a descriptor is a registration_descriptor (2.6.8) of "HDMV".
bool is_of_hdmv(const uint8_t *desc)
{
    constexpr uint8_t registration = 0x05;
    return desc_get_tag(desc) == registration && desc_get_length(desc) >= 4 &&
           memcmp(desc + DESC_HEADER_SIZE, "HDMV", 4) == 0;
}

} // namespace

// ---- Sections of packets

std::span<const uint8_t> ts_section_bytes(ts_header h, const uint8_t *pkt)
{
    const auto payload = ts_get_payload(h, pkt);
    const bool has_pointer = hdr_is_unit_start(h) && !payload.empty();
    return payload.subspan(has_pointer ? 1 : 0); // the pointer field, not honoured
}

bool section_crc_is_right(std::span<const uint8_t> section)
{
    if (section.size() < PSI_HEADER_SIZE)
        return false;
    const size_t len = psi_get_length(section.data());
    return len >= PSI_CRC_SIZE && PSI_HEADER_SIZE + len <= section.size() &&
           psi_check_crc(section.data());
}

psi_section::psi_section(std::span<const uint8_t> bytes)
{
    const size_t room = bytes.size() - PSI_HEADER_SIZE;
    const size_t len = std::min<size_t>(psi_get_length(bytes.data()), room);
    // A full header, as the packet holds it, even of a section that claims to be shorter.
    const size_t header = std::min<size_t>(bytes.size(), PMT_HEADER_LEN);
    std::copy_n(bytes.data(), std::max(len + PSI_HEADER_SIZE, header), data());
    psi_set_length(data(), static_cast<uint16_t>(len));
}

unsigned psi_last_section(const psi_section &pld) { return psi_get_lastsection(pld.data()); }

void free_bytes::operator()(uint8_t *bytes) const { free(bytes); }

section_copy dup_psi_sec(const psi_section &pld)
{
    const size_t len = psi_get_length(pld.data());
    // The comparison reads three bytes more than are kept, every reader a full header.
    const size_t size = std::max<size_t>(len + PSI_HEADER_SIZE, PSI_HEADER_SIZE_SYNTAX1);
    section_copy copy(static_cast<uint8_t *>(calloc(size, 1)));
    if (copy != nullptr)
        std::copy_n(pld.data(), len, copy.get());
    return copy;
}

// ---- Tables

psi_block::~psi_block() { psi_table_free(sec); }

bool add_section(psi_block *table, const psi_section &pld)
{
    section_copy copy = dup_psi_sec(pld);
    const bool is_copied = copy != nullptr;
    table->is_complete = is_copied && psi_table_section(table->sec, copy.release());
    return is_copied;
}

// The library's own loop counts in eight bits and would never end at 255.
bool tables_equal(const psi_block &a, const psi_block &b)
{
    const unsigned last = psi_get_lastsection(a.sec[0]);
    if (last != psi_get_lastsection(b.sec[0]))
        return false;
    for (unsigned i = 0; i <= last; ++i)
        if (!psi_compare(a.sec[i], b.sec[i]))
            return false;
    return true;
}

bool holds_section(const psi_block &table, std::span<const uint8_t> section)
{
    const uint8_t *held = table.sec[section_number(section)];
    const size_t kept = section.size() - PSI_HEADER_SIZE; // of a copy (dup_psi_sec)
    return held != nullptr && psi_get_length(held) == kept &&
           memcmp(held, section.data(), kept) == 0;
}

bool get_pat_entry(const psi_block &table, unsigned section, unsigned j, program_entry *entry)
{
    uint8_t *sec = table.sec[section];
    if (sec == nullptr)
        return false;
    const uint8_t *found = pat_get_program(sec, static_cast<uint8_t>(j));
    if (found == nullptr)
        return false;
    *entry = {patn_get_program(found), patn_get_pid(found)};
    return true;
}

void print_pat(psi_block *table, FILE *fp)
{
    if (fp == nullptr || table->sec[0] == nullptr)
        return;
    if (psi_get_lastsection(table->sec[0]) == 255) { // the printer's loop would never end
        m_print(fp, "PAT of 256 sections, not shown");
        return;
    }
    pat_table_print(table->sec, m_print, fp, PRINT_TEXT);
}

// ---- PMTs

pmt_section::pmt_section(std::span<const uint8_t> bytes) : psi_section(bytes)
{
    uint8_t *pmt = data();
    // The library computes the end of the entries in 16 bits: a section too short to have any must
    // not get below the header.
    constexpr uint16_t shortest = PMT_HEADER_SIZE - PSI_HEADER_SIZE + PSI_CRC_SIZE;
    if (psi_get_length(pmt) < shortest)
        psi_set_length(pmt, shortest);

    const size_t info = std::min<size_t>(pmt_get_desclength(pmt), end() - PMT_HEADER_SIZE);
    size_t at = PMT_HEADER_SIZE;
    pmt_set_desclength(pmt, static_cast<uint16_t>(clip_descriptors(at, info)));
    at += pmt_get_desclength(pmt);
    while (at < end()) {
        uint8_t *entry = pmt + at;
        at += PMT_ES_SIZE;
        const size_t room = at < end() ? end() - at : 0;
        const size_t len = std::min<size_t>(pmtn_get_desclength(entry), room);
        pmtn_set_desclength(entry, static_cast<uint16_t>(clip_descriptors(at, len)));
        at += pmtn_get_desclength(entry);
    }
}

// Where the CRC begins.
size_t pmt_section::end() const
{
    return size_t{psi_get_length(data())} + PSI_HEADER_SIZE - PSI_CRC_SIZE;
}

// Ends the descriptors of a loop where the loop ends: what a descriptor claims beyond it would be
// printed too, line by line. A last byte that is only a tag gets a length of 0, for which the rest
// of the section moves up. Returns the loop's length now.
size_t pmt_section::clip_descriptors(size_t at, size_t len)
{
    uint8_t *loop = data() + at;
    size_t used = 0;
    while (used + DESC_HEADER_SIZE <= len) {
        uint8_t *desc = loop + used;
        const size_t room = len - used - DESC_HEADER_SIZE;
        if (desc_get_length(desc) > room)
            desc_set_length(desc, static_cast<uint8_t>(room));
        used += size_t{DESC_HEADER_SIZE} + desc_get_length(desc);
    }
    if (used == len)
        return len;
    uint8_t *rest = loop + len;
    memmove(rest + 1, rest, static_cast<size_t>(data() + end() + PSI_CRC_SIZE - rest));
    *rest = 0;
    psi_set_length(data(), static_cast<uint16_t>(psi_get_length(data()) + 1));
    return len + 1;
}

uint32_t pmt_pcr_pid(const pmt_section &pmt) { return pmt_get_pcrpid(pmt.data()); }

bool get_pmt_entry(pmt_section *pmt, unsigned j, pmt_entry *entry)
{
    uint8_t *es = pmt_get_es(pmt->data(), static_cast<uint8_t>(j));
    if (es == nullptr)
        return false;
    *entry = {pmtn_get_pid(es), pmtn_get_streamtype(es)};
    return true;
}

pmt_hints get_pmt_hints(pmt_section *pmt, unsigned j)
{
    uint8_t *own = pmtn_get_descs(pmt_get_es(pmt->data(), static_cast<uint8_t>(j)));
    return {any_descriptor(own, is_of_audio),
            any_descriptor(own, is_of_hdmv) ||
                any_descriptor(pmt_get_descs(pmt->data()), is_of_hdmv)};
}

void print_pmt(pmt_section *pmt, ctxt_spec *text)
{
    pmt_print(pmt->data(), add_ctxt_line, text, copy_bytes, nullptr, PRINT_TEXT);
}

const char *streamtype_name(uint8_t stream_type) { return pmt_get_streamtype_txt(stream_type); }

const char *get_streamtype_txt(uint8_t i_stream_type)
{
    static char text[80];
    const char *name = streamtype_name(i_stream_type);
    if (strchr(name, ' ') == nullptr)
        return name;
    copy_text(text, sizeof text, name);
    std::replace_if(
        text, text + strlen(text), [](char c) { return c == ' ' || c == '\t'; }, '_');
    return text;
}

// ---- Repeated sections

bool section_image::matches(std::span<const uint8_t> section) const
{
    return size_ == section.size() && memcmp(bytes_.data(), section.data(), size_) == 0;
}

void section_image::remember(std::span<const uint8_t> section)
{
    size_ = section.size();
    std::copy(section.begin(), section.end(), bytes_.begin());
}
