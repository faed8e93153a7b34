// Gathers the sections of a PID from its packets, as ISO/IEC 13818-1, 2.4.4, lays them out.
//
// What a section means is not known here: what is handed out is whole and undamaged, no more.
#pragma once

#include "tsanalyze/psi.h"
#include "tsanalyze/ts.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

// Why a section was refused.
enum section_fault : uint8_t {
    SECTION_INCOMPLETE, // a packet was lost, or the next section began before its end
    SECTION_BAD_LENGTH, // a length, or a pointer field, that cannot be
    SECTION_BAD_CRC,
    SECTION_FAULTS
};

// Sections refused, by fault.
typedef std::array<uint64_t, SECTION_FAULTS> section_refusals;

// Gathers the sections of one PID. Memory is bounded: one open section and one packet's payload.
//
//     gatherer.take(h, pkt);
//     for (auto s = gatherer.next(); !s.empty(); s = gatherer.next())
//         use(s);
//
// An open section, one whose end is still to come, is dropped when a packet was lost, at a
// discontinuity_indicator, and when the next section begins elsewhere than at its end. A packet
// that comes twice in a row is taken once (2.4.3.3). For one thread at a time.
class section_gatherer {
public:
    // Takes a packet of the PID, neither scrambled nor marked by transport_error_indicator. The
    // sections it completes are handed out by next(); what was not asked for until then is gone.
    void take(ts_header h, const uint8_t *pkt);

    // The next whole section with section_syntax_indicator and the right CRC, from table_id to
    // CRC: 12 to MAX_SECTION_SIZE bytes, valid until the next call of this or of take. Empty when
    // there are no more. Sections without that syntax, and longer private ones, are stepped over.
    std::span<const uint8_t> next();

    // For tables that are repeated again and again. settle() says that what the last packet brought
    // is no news, and take_again(h, pkt) takes a packet that brings just that, in sequence; it
    // returns false, and takes nothing, for any other and when a section was refused or is open.
    void settle();
    void unsettle() { settled_ = 0; }
    bool take_again(ts_header h, const uint8_t *pkt)
    {
        if (h != settled_ || memcmp(pkt + 4, payload_.data(), TS_PACKET_SIZE - 4) != 0)
            return false;
        last_ = h;
        settled_ = hdr_followed(h);
        return true;
    }

    // Sections refused so far, by fault.
    const section_refusals &refused() const { return refused_; }

    // Forgets what is open and the last packet; the counts stay.
    void reset();

private:
    void refuse(section_fault fault)
    {
        ++refused_[fault];
        is_clean_ = false;
    }
    void begin_unit(std::span<const uint8_t> payload);
    void open(std::span<const uint8_t> bytes);
    size_t append(std::span<const uint8_t> bytes);
    bool is_whole() const;
    void finish_open();
    void drop_open();

    ts_header last_ = 0;        // header of the last packet with a payload
    ts_header settled_ = 0;     // ... of the packet that take_again takes; 0: none
    bool was_repeated_ = false; // that packet has come twice
    bool is_clean_ = false;     // the last packet held whole sections alone, all of them right
    bool is_done_ = false;      // the open section is whole and to be handed out
    size_t open_size_ = 0;      // bytes of the open section that have come; 0: none is open
    size_t payload_size_ = 0;
    size_t at_ = 0;     // bytes of the payload that are dealt with
    size_t proven_ = 0; // where in the payload a section with the right CRC begins; 0: not known
    section_refusals refused_{};
    std::array<uint8_t, TS_PACKET_SIZE> payload_; // of the last packet
    std::array<uint8_t, MAX_SECTION_SIZE> open_;
};
