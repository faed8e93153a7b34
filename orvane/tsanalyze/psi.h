// Tables: sections taken from packets, gathered, compared, read and printed.
//
// The only room that touches the table library, which trusts its input. Here nothing is read past
// the bytes that came.
#pragma once

#include "misc/ctxt.h"
#include "tsanalyze/ts.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>

enum {
    PAT_HEADER_LEN = 8,       // ISO/IEC 13818-1, table 2-30
    PMT_HEADER_LEN = 12,      // table 2-33
    MAX_SECTION_ENTRIES = 32, // PAT entries read from one section
    MAX_PMT_ENTRIES = 64,     // PMT entries read from a section
};

// The bytes from the start of the section in a packet to the packet's end; empty without payload.
// In a packet that starts a payload unit the section begins behind the pointer field, whose value
// is not honoured.
std::span<const uint8_t> ts_section_bytes(ts_header h, const uint8_t *pkt);

// Whether the CRC at the section's end is right (ISO/IEC 13818-1, annex A); false when there are
// fewer bytes than its length says, or too few for a CRC.
bool section_crc_is_right(std::span<const uint8_t> section);

// Fields of a section of eight bytes or more (2.4.4.4, 2.4.4.9).
inline uint8_t section_table_id(std::span<const uint8_t> s) { return s[0]; }
inline uint32_t section_extension(std::span<const uint8_t> s) { return s[3] * 256u + s[4]; }
inline bool section_is_current(std::span<const uint8_t> s) { return (s[5] & 1) != 0; }
inline uint8_t section_number(std::span<const uint8_t> s) { return s[6]; }
inline uint8_t section_last_number(std::span<const uint8_t> s) { return s[7]; }

// A private copy of a section with room behind it: its length never reaches past its bytes, and
// what lies behind the section is zero, so that a reader misled by a length within the section
// stays inside the copy. A section of a packet ends with the packet at the latest.
class psi_section {
public:
    explicit psi_section(std::span<const uint8_t> bytes);
    uint8_t *data() { return bytes_.data(); }
    const uint8_t *data() const { return bytes_.data(); }

private:
    // The bytes of the longest section, what a PMT's descriptors may gain (pmt_section), and twice
    // the 255 bytes and the headers that a length field can jump.
    std::array<uint8_t, 2048> bytes_{};
};

struct free_bytes {
    void operator()(uint8_t *bytes) const;
};
typedef std::unique_ptr<uint8_t, free_bytes> section_copy;

// A heap copy of a section: section_length bytes from the table_id on, which leaves the last three
// of the CRC out, deliberately; the rest reads as zero. Null without memory.
section_copy dup_psi_sec(const psi_section &pld);

unsigned psi_last_section(const psi_section &pld);

// Sections of one table, by section number. The copies belong to the block.
struct psi_block {
    uint8_t *sec[256]{};
    bool is_complete = false; // the last section added made the table complete

    psi_block() = default;
    psi_block(const psi_block &) = delete;
    psi_block &operator=(const psi_block &) = delete;
    ~psi_block();
};

// Adds a copy of the section to a table and stores in is_complete whether all sections are there.
// Without memory the table stays as it is, incomplete, and false is returned.
bool add_section(psi_block *table, const psi_section &pld);

// Whether two complete tables have the same sections.
bool tables_equal(const psi_block &a, const psi_block &b);

// Whether the table has this very section.
bool holds_section(const psi_block &table, std::span<const uint8_t> section);

struct program_entry {
    uint32_t number; // programme_number; 0: the network PID
    uint32_t pid;
};

// The j-th entry of a section held; false past the last entry or without the section.
bool get_pat_entry(const psi_block &table, unsigned section, unsigned j, program_entry *entry);

// Prints a complete PAT to a stream.
void print_pat(psi_block *table, FILE *fp);

// A PMT section whose information lengths end where its CRC begins, and whose descriptors end with
// their loops.
class pmt_section : public psi_section {
public:
    explicit pmt_section(std::span<const uint8_t> bytes);

private:
    size_t end() const;
    size_t clip_descriptors(size_t at, size_t len);
};

constexpr size_t MAX_SECTION_SIZE = 1024; // of a PAT or PMT, header and CRC included (2.4.4)

struct pmt_entry {
    uint32_t pid;
    uint8_t stream_type;
};

// What descriptors tell of a stream besides.
struct pmt_hints {
    bool has_audio_descriptor; // of ETSI EN 300 468: AC-3, E-AC-3, DTS, AAC, AC-4
    bool is_hdmv;              // the programme or the stream is registered as "HDMV"
};

uint32_t pmt_pcr_pid(const pmt_section &pmt);

// The j-th entry of a PMT; false past the last one.
bool get_pmt_entry(pmt_section *pmt, unsigned j, pmt_entry *entry);

pmt_hints get_pmt_hints(pmt_section *pmt, unsigned j); // of an entry that is there

// Prints a PMT into a snapshot.
void print_pmt(pmt_section *pmt, ctxt_spec *text);

// Name of a stream_type (ISO/IEC 13818-1, table 2-34), with blanks, as people read it.
const char *streamtype_name(uint8_t stream_type);

// The same without blanks, for STAT lines; may stand in a buffer that the next call overwrites.
const char *get_streamtype_txt(uint8_t i_stream_type);

// The bytes of a section that changed nothing when it was last taken; the same bytes again need no
// second look.
class section_image {
public:
    bool matches(std::span<const uint8_t> section) const;
    void remember(std::span<const uint8_t> section);
    void forget() { size_ = 0; }

private:
    size_t size_ = 0;
    std::array<uint8_t, MAX_SECTION_SIZE> bytes_{};
};
