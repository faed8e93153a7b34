// Builds captures: packets, sections and PES headers as ISO/IEC 13818-1 lays them out.
//
//     capture_builder c;
//     c.pat({{1, 0x100}});
//     c.pmt(0x100, {.program = 1, .pcr_pid = 0x101, .streams = {{0x1b, 0x101}, {0x0f, 0x102}}});
//     c.pes(0x101, {.pts = 93600, .dts = 90000, .pcr = 90000});
//     c.payload(0x102);
//     c.write_file(dir.path("capture.ts"));
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
    unsigned tsid = 1;
    unsigned version = 0;
    unsigned section = 0;
    unsigned last_section = 0;
};

struct pmt_entry {
    unsigned type;
    unsigned pid;
    octets descriptors{};
};

struct pmt_fields {
    unsigned program = 1;
    unsigned pcr_pid = 0x1fff;
    unsigned version = 0;
    octets descriptors{};
    std::vector<pmt_entry> streams{};
};

// Clock values are ticks of 90 kHz.
struct packet_fields {
    bool unit_start = false;
    bool has_payload = true;
    std::optional<uint64_t> pcr{};
    std::optional<unsigned> adaptation{}; // adaptation_field_length, also one past the packet
    octets payload{};                     // filled up with 0xff
};

struct pes_fields {
    std::optional<uint64_t> pts{};
    std::optional<uint64_t> dts{};
    std::optional<uint64_t> pcr{};
    unsigned stream_id = 0xe0;
};

uint32_t crc_32(const octets &data);

// A long-form section: `body` is what stands between the section header (8 bytes) and the CRC.
octets table_section(unsigned table_id, unsigned extension, const pat_fields &fields,
                     const octets &body);
octets pat_section(const std::vector<pat_entry> &programs, const pat_fields &fields = {});
octets pmt_section(const pmt_fields &fields);

// The header of a PES packet of unbounded length.
octets pes_header(const pes_fields &fields);

class capture_builder {
public:
    // The packets all others are made of. The continuity counter of the PID goes on by one with
    // each packet that has a payload.
    void packet(unsigned pid, const packet_fields &fields);

    void pat(const std::vector<pat_entry> &programs, const pat_fields &fields = {});
    void pmt(unsigned pid, const pmt_fields &fields);
    // One packet that begins with this section, after a pointer field of 0 or, without
    // `unit_start`, directly behind the header.
    void section(unsigned pid, const octets &section, bool unit_start = true);
    void pes(unsigned pid, const pes_fields &fields);
    void payload(unsigned pid, int count = 1); // packets inside a PES packet
    void pcr(unsigned pid, uint64_t value);    // an adaptation field with a PCR, no payload
    void null(int count = 1);
    void raw(const octets &data); // any bytes

    void set_cc(unsigned pid, unsigned value) { m_cc[pid] = value & 15; } // of the next packet
    void skip_cc(unsigned pid, unsigned count = 1) { set_cc(pid, m_cc[pid] + count); }
    void repeat_cc(unsigned pid) { set_cc(pid, m_cc[pid] + 15); }

    const octets &bytes() const { return m_data; }
    std::string text() const { return {m_data.begin(), m_data.end()}; }
    size_t count() const { return m_data.size() / PKT_SIZE; }
    const uint8_t *at(size_t index) const { return m_data.data() + index * PKT_SIZE; }
    // Byte `offset` of the packet made last, for damage.
    uint8_t &last(size_t offset) { return m_data[m_data.size() - PKT_SIZE + offset]; }
    void write_file(const std::string &path) const;

private:
    octets m_data;
    std::map<unsigned, unsigned> m_cc; // counter of the next packet with payload
};
