// The fields of a packet's header (ISO/IEC 13818-1, 2.4.3.2), and where its payload lies. Every
// room of the engine that looks into a packet does it by these.
#pragma once

#include "tsanalyze/tsanalyze.h"

#include <libtarnlink/mpegts.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

// Reserved PIDs (ISO/IEC 13818-1, table 2-3; ETSI EN 300 468, table 1).
constexpr uint32_t PAT_PID_NUMBER = 0;
constexpr uint32_t SDT_PID_NUMBER = 17;
constexpr uint32_t NULL_PID_NUMBER = 0x1FFF;

constexpr size_t PID_COUNT = 8192; // PIDs have 13 bits

// The four bytes of the header as one number.
typedef uint32_t ts_header;

inline ts_header read_header(const uint8_t *pkt)
{
    return uint32_t{pkt[0]} << 24 | uint32_t{pkt[1]} << 16 | uint32_t{pkt[2]} << 8 | pkt[3];
}

constexpr bool hdr_is_sync(ts_header h) { return h >> 24 == MPEG_TS_SYNC; }
constexpr bool hdr_is_unit_start(ts_header h) { return (h & 0x400000) != 0; }
constexpr uint32_t hdr_pid(ts_header h) { return h >> 8 & 0x1FFF; }
constexpr bool hdr_has_adaptation(ts_header h) { return (h & 0x20) != 0; }
constexpr bool hdr_is_damaged(ts_header h) { return (h & 0x800000) != 0; }
constexpr bool hdr_is_scrambled(ts_header h) { return (h & 0xC0) != 0; }
constexpr int hdr_cc(ts_header h) { return static_cast<int>(h & 0x0F); }

// Whether the header says payload. That is what counters go by, also when the adaptation field
// leaves no room for any: some packagers fill up with such packets.
constexpr bool hdr_has_payload(ts_header h) { return (h & 0x10) != 0; }

// Whether the header says payload and no adaptation field.
constexpr bool hdr_has_payload_only(ts_header h) { return (h & 0x30) == 0x10; }

// The header of a packet that follows in sequence and is the same otherwise.
constexpr ts_header hdr_followed(ts_header h) { return (h & ~ts_header{0x0F}) | ((h + 1) & 0x0F); }

// The header of a packet that follows in sequence and starts no payload unit.
constexpr ts_header hdr_continued(ts_header h) { return hdr_followed(h) & ~ts_header{0x400000}; }

// Whether there is an adaptation field of so many bytes or more. One that is longer than the packet
// holds nothing to be relied on (2.4.3.5: at most 183).
inline bool ts_has_fields(ts_header h, const uint8_t *pkt, uint8_t least)
{
    return hdr_has_adaptation(h) && pkt[4] >= least && pkt[4] <= TS_PACKET_SIZE - 5;
}

// Whether the adaptation field announces a discontinuity (2.4.3.5, discontinuity_indicator).
inline bool ts_has_discontinuity(ts_header h, const uint8_t *pkt)
{
    return ts_has_fields(h, pkt, 1) && (pkt[5] & 0x80) != 0;
}

// The payload bytes of a packet; none when the header says so, and when the adaptation field
// reaches the packet's end.
inline std::span<const uint8_t> ts_get_payload(ts_header h, const uint8_t *pkt)
{
    size_t start = TS_PACKET_SIZE;
    if (hdr_has_payload(h)) [[likely]]
        start = hdr_has_adaptation(h) ? std::min<size_t>(5u + pkt[4], TS_PACKET_SIZE) : 4;
    return {pkt + start, TS_PACKET_SIZE - start};
}
