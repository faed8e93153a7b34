#include "support/capture.h"

#include <algorithm>
#include <bitstream/mpeg/psi/psi.h>

namespace {

// Appends the lowest bytes of a number, the highest of them first.
void put(octets *out, uint64_t value, unsigned bytes)
{
    while (bytes-- > 0)
        out->push_back(static_cast<uint8_t>(value >> 8 * bytes & 0xff));
}

void append(octets *out, const octets &data) { out->insert(out->end(), data.begin(), data.end()); }

// A length field behind reserved bits, and what it tells the length of.
void put_block(octets *out, const octets &data)
{
    put(out, 0xf000 | data.size(), 2);
    append(out, data);
}

void put_timestamp(octets *out, uint64_t prefix, uint64_t ticks)
{
    put(out, prefix << 4 | (ticks >> 29 & 0x0e) | 1, 1);
    put(out, (ticks >> 14 & 0xfffe) | 1, 2);
    put(out, (ticks << 1 & 0xfffe) | 1, 2);
}

// `body` is what stands between the header of a long section and the CRC.
octets make_section(unsigned table_id, unsigned extension, const pat_fields &fields,
                    const octets &body)
{
    octets out;
    put(&out, table_id << 16 | 0xb000 | (5 + body.size() + 4), 3);
    put(&out, extension, 2);
    put(&out,
        (0xc0 | fields.version << 1 | (fields.is_current ? 1U : 0U)) << 16 | fields.section << 8 |
            fields.last_section,
        3);
    append(&out, body);
    put(&out, 0, 4);
    psi_set_crc(out.data());
    return out;
}

} // namespace

octets make_pat_section(const std::vector<pat_entry> &programs, const pat_fields &fields)
{
    octets body;
    for (const pat_entry &entry : programs)
        put(&body, entry.program << 16 | 0xe000 | entry.pid, 4);
    return make_section(0, 1, fields, body);
}

octets make_pmt_section(const pmt_fields &fields)
{
    octets body;
    put(&body, 0xe000 | fields.pcr_pid, 2);
    put_block(&body, fields.descriptors);
    for (const es_entry &entry : fields.streams) {
        put(&body, entry.type << 16 | 0xe000 | entry.pid, 3);
        put_block(&body, entry.descriptors);
    }
    return make_section(2, fields.program,
                        {.version = fields.version, .is_current = fields.is_current}, body);
}

octets pes_header(const pes_fields &fields)
{
    const unsigned flags = (fields.pts ? 2U : 0U) | (fields.dts ? 1U : 0U);
    octets out;
    put(&out, 0x100 | fields.stream_id, 4);
    put(&out, 0x800000 | flags << 14 | ((fields.pts ? 5U : 0U) + (fields.dts ? 5U : 0U)), 5);
    if (fields.pts)
        put_timestamp(&out, flags, *fields.pts);
    if (fields.dts)
        put_timestamp(&out, 1, *fields.dts);
    return out;
}

void capture_builder::packet(unsigned pid, const packet_fields &fields)
{
    std::optional<unsigned> length = fields.adaptation;
    if (!length && !fields.has_payload)
        length = 183;
    if (fields.discontinuity)
        length = std::max(length.value_or(0), 1U);
    if (fields.pcr && !fields.adaptation)
        length = std::max(length.value_or(0), 7U);
    const unsigned cc = fields.has_payload ? 0x10 | (m_cc[pid]++ & 15) : (m_cc[pid] - 1) & 15;
    const unsigned marks = (fields.unit_start ? 0x400000U : 0U) |
                           (fields.damaged ? 0x800000U : 0U) | (fields.scrambled ? 0x80U : 0U);
    octets pkt;
    put(&pkt, 0x47000000 | marks | pid << 8 | (length ? 0x20U : 0U) | cc, 4);
    if (length) {
        put(&pkt, *length, 1);
        if (*length > 0)
            put(&pkt, (fields.pcr ? 0x10U : 0U) | (fields.discontinuity ? 0x80U : 0U), 1);
        if (fields.pcr)
            put(&pkt, *fields.pcr << 15 | 0x7e00, 6);
        pkt.resize(std::max<size_t>(pkt.size(), 5 + *length), 0xff);
    }
    if (fields.has_payload)
        append(&pkt, fields.payload);
    pkt.resize(PKT_SIZE, 0xff);
    append(&m_data, pkt);
}

void capture_builder::sections(unsigned pid, const std::vector<octets> &sections)
{
    constexpr size_t room = PKT_SIZE - 4;
    octets data;
    std::vector<size_t> starts;
    for (const octets &section : sections) {
        starts.push_back(data.size());
        append(&data, section);
    }
    for (size_t at = 0; at < data.size();) {
        const auto start = std::lower_bound(starts.begin(), starts.end(), at);
        const size_t ahead = start == starts.end() ? room : *start - at;
        const bool unit_start = ahead < room - 1;
        const size_t size = std::min(ahead < room ? room - 1 : room, data.size() - at);
        octets payload(data.begin() + static_cast<ptrdiff_t>(at),
                       data.begin() + static_cast<ptrdiff_t>(at + size));
        if (unit_start)
            payload.insert(payload.begin(), static_cast<uint8_t>(ahead));
        // A section that would begin with the last byte has no room for its pointer field there.
        const bool fill = ahead == room - 1;
        packet(pid, {.unit_start = unit_start,
                     .adaptation = fill ? std::optional(0U) : std::nullopt,
                     .payload = payload});
        at += size;
    }
}
