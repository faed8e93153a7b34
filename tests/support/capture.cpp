#include "support/capture.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace {

uint8_t low8(uint64_t value) { return static_cast<uint8_t>(value & 0xff); }

void put16(octets *out, unsigned value)
{
    out->push_back(low8(value >> 8));
    out->push_back(low8(value));
}

void append(octets *out, const octets &data) { out->insert(out->end(), data.begin(), data.end()); }

// A length or PID field behind reserved bits, and what follows it.
void put_block(octets *out, const octets &data)
{
    put16(out, 0xf000U | static_cast<unsigned>(data.size()));
    append(out, data);
}

void put_timestamp(octets *out, unsigned prefix, uint64_t ticks)
{
    out->push_back(low8(prefix << 4 | (ticks >> 29 & 0x0e) | 1));
    put16(out, static_cast<unsigned>(ticks >> 14 & 0xfffe) | 1);
    put16(out, static_cast<unsigned>(ticks << 1 & 0xfffe) | 1);
}

octets adaptation_field(unsigned length, const std::optional<uint64_t> &pcr)
{
    octets field{low8(length)};
    if (length > 0)
        field.push_back(pcr ? 0x10 : 0);
    if (pcr)
        field.insert(field.end(), {low8(*pcr >> 25), low8(*pcr >> 17), low8(*pcr >> 9),
                                   low8(*pcr >> 1), low8(*pcr << 7 | 0x7e), 0});
    field.resize(std::max<size_t>(field.size(), 1 + length), 0xff);
    return field;
}

} // namespace

uint32_t crc_32(const octets &data)
{
    uint32_t crc = 0xffffffff;
    for (const uint8_t byte : data) {
        crc ^= uint32_t{byte} << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc << 1 ^ ((crc & 0x80000000) != 0 ? 0x04c11db7U : 0U);
    }
    return crc;
}

octets table_section(unsigned table_id, unsigned extension, const pat_fields &fields,
                     const octets &body)
{
    octets out{low8(table_id)};
    put16(&out, 0xb000U | static_cast<unsigned>(5 + body.size() + 4));
    put16(&out, extension);
    out.insert(out.end(),
               {low8(0xc1 | fields.version << 1), low8(fields.section), low8(fields.last_section)});
    append(&out, body);
    const uint32_t crc = crc_32(out);
    put16(&out, crc >> 16);
    put16(&out, crc & 0xffff);
    return out;
}

octets pat_section(const std::vector<pat_entry> &programs, const pat_fields &fields)
{
    octets body;
    for (const pat_entry &entry : programs) {
        put16(&body, entry.program);
        put16(&body, 0xe000U | entry.pid);
    }
    return table_section(0, fields.tsid, fields, body);
}

octets pmt_section(const pmt_fields &fields)
{
    octets body;
    put16(&body, 0xe000U | fields.pcr_pid);
    put_block(&body, fields.descriptors);
    for (const pmt_entry &entry : fields.streams) {
        body.push_back(low8(entry.type));
        put16(&body, 0xe000U | entry.pid);
        put_block(&body, entry.descriptors);
    }
    return table_section(2, fields.program, {.version = fields.version}, body);
}

octets pes_header(const pes_fields &fields)
{
    const unsigned flags = (fields.pts ? 0x80U : 0U) | (fields.dts ? 0x40U : 0U);
    octets out{0, 0, 1, low8(fields.stream_id), 0, 0, 0x80, low8(flags), 0};
    if (fields.pts)
        put_timestamp(&out, flags >> 6, *fields.pts);
    if (fields.dts)
        put_timestamp(&out, 1, *fields.dts);
    out[8] = low8(out.size() - 9);
    return out;
}

void capture_builder::packet(unsigned pid, const packet_fields &fields)
{
    octets pkt{0x47, low8((fields.unit_start ? 0x40 : 0) | pid >> 8), low8(pid), 0};
    std::optional<unsigned> length = fields.adaptation;
    if (!length && !fields.has_payload)
        length = 183;
    if (fields.pcr)
        length = std::max(length.value_or(0), 7U);
    if (length)
        append(&pkt, adaptation_field(*length, fields.pcr));
    if (fields.has_payload)
        append(&pkt, fields.payload);
    if (pkt.size() > PKT_SIZE && length.value_or(0) <= 183)
        throw std::length_error("the payload does not fit the packet");
    pkt.resize(PKT_SIZE, 0xff);

    const unsigned cc = m_cc[pid];
    pkt[3] = low8((length ? 0x20U : 0U) | (fields.has_payload ? 0x10 | cc : (cc + 15) & 15));
    if (fields.has_payload)
        skip_cc(pid);
    append(&m_data, pkt);
}

void capture_builder::pat(const std::vector<pat_entry> &programs, const pat_fields &fields)
{
    section(0, pat_section(programs, fields));
}

void capture_builder::pmt(unsigned pid, const pmt_fields &fields)
{
    section(pid, pmt_section(fields));
}

void capture_builder::section(unsigned pid, const octets &section, bool unit_start)
{
    octets data(unit_start ? 1 : 0, 0); // pointer_field
    append(&data, section);
    data.resize(std::min(data.size(), PKT_SIZE - 4)); // the rest is lost
    packet(pid, {.unit_start = unit_start, .payload = data});
}

void capture_builder::pes(unsigned pid, const pes_fields &fields)
{
    packet(pid, {.unit_start = true, .pcr = fields.pcr, .payload = pes_header(fields)});
}

void capture_builder::payload(unsigned pid, int count)
{
    for (int i = 0; i < count; ++i)
        packet(pid, {});
}

void capture_builder::pcr(unsigned pid, uint64_t value)
{
    packet(pid, {.has_payload = false, .pcr = value, .adaptation = 183});
}

void capture_builder::null(int count) { payload(0x1fff, count); }

void capture_builder::raw(const octets &data) { append(&m_data, data); }

void capture_builder::write_file(const std::string &path) const
{
    std::ofstream(path, std::ios::binary) << text();
}
