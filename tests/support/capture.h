// Builds captures: packets, sections and PES headers as ISO/IEC 13818-1 lays them out.
//
//     capture_builder c;
//     c.pat({{1, 0x100}});
//     c.pmt(0x100, {.program = 1, .pcr_pid = 0x101, .streams = {{0x1b, 0x101}, {0x0f, 0x102}}});
//     c.pes(0x101, {.pts = 93600, .dts = 90000, .pcr = 90000});
//     c.payload(0x102);
//     dir.file("capture.ts", c.text());
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

typedef std::vector<uint8_t> octets;

constexpr size_t PKT_SIZE = 188;

struct pat_entry {
    unsigned program; // 0: the network information table
    unsigned pid;
};

struct pat_fields {
    unsigned version = 0, section = 0, last_section = 0;
    bool is_current = true; // current_next_indicator
};

struct es_entry {
    unsigned type, pid;
    octets descriptors{};
};

struct pmt_fields {
    unsigned program = 1, pcr_pid = 0x1fff, version = 0;
    bool is_current = true;
    octets descriptors{};
    std::vector<es_entry> streams{};
};

// Clock values are ticks of 90 kHz.
struct packet_fields {
    bool unit_start = false, has_payload = true;
    bool discontinuity = false, damaged = false, scrambled = false;
    std::optional<uint64_t> pcr{};
    std::optional<unsigned> adaptation{}; // adaptation_field_length, also one past the packet
    octets payload{};                     // filled up with 0xff
};

struct pes_fields {
    std::optional<uint64_t> pts{}, dts{}, pcr{};
    unsigned stream_id = 0xe0;
};

octets make_pat_section(const std::vector<pat_entry> &programs, const pat_fields &fields = {});
octets make_pmt_section(const pmt_fields &fields);
octets pes_header(const pes_fields &fields); // of a PES packet of unbounded length

class capture_builder {
public:
    // The packets all others are made of. The continuity counter of the PID goes on by one with
    // each packet that has a payload.
    void packet(unsigned pid, const packet_fields &fields);

    void pat(const std::vector<pat_entry> &programs, const pat_fields &fields = {})
    {
        section(0, make_pat_section(programs, fields));
    }
    void pmt(unsigned pid, const pmt_fields &fields) { section(pid, make_pmt_section(fields)); }
    // One packet that begins with this section, behind a pointer field of 0; the rest is lost.
    void section(unsigned pid, octets section)
    {
        section.insert(section.begin(), 0);
        packet(pid, {.unit_start = true, .payload = section});
    }
    // Packets that hold these sections one behind the other; the last is filled up with stuffing.
    void sections(unsigned pid, const std::vector<octets> &sections);
    void pes(unsigned pid, const pes_fields &fields)
    {
        packet(pid, {.unit_start = true, .pcr = fields.pcr, .payload = pes_header(fields)});
    }
    void payload(unsigned pid, int count = 1) // packets inside a PES packet
    {
        while (count-- > 0)
            packet(pid, {});
    }
    void null(int count = 1) { payload(0x1fff, count); }
    // An adaptation field with a PCR, no payload.
    void pcr(unsigned pid, uint64_t value) { packet(pid, {.has_payload = false, .pcr = value}); }
    void raw(const octets &data) { m_data.insert(m_data.end(), data.begin(), data.end()); }

    void set_cc(unsigned pid, unsigned value) { m_cc[pid] = value; } // of the next packet
    void skip_cc(unsigned pid, unsigned count = 1) { m_cc[pid] += count; }

    const octets &bytes() const { return m_data; }
    std::string text() const { return {m_data.begin(), m_data.end()}; }
    size_t count() const { return m_data.size() / PKT_SIZE; }
    const uint8_t *at(size_t index) const { return m_data.data() + index * PKT_SIZE; }
    // Byte `offset` of the packet made last, for damage.
    uint8_t &last(size_t offset) { return m_data[m_data.size() - PKT_SIZE + offset]; }

private:
    octets m_data;
    std::map<unsigned, unsigned> m_cc; // counter of the next packet with payload, modulo 16
};
