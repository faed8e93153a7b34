// The road of one packet: tag, bookkeeping, PES time stamps and the fixed order of checks.
//
// It is walked for every packet of a capture: nothing here allocates, formats or reads a clock
// unless a line is really written.
#pragma once

#include "tsanalyze/context.h"
#include "tsanalyze/continuity.h"

#include <libtarnlink/mpegts.h>

#include <algorithm>
#include <cstdint>
#include <span>

// Reserved PIDs (ISO/IEC 13818-1, table 2-3; ETSI EN 300 468, table 1).
constexpr uint32_t PAT_PID_NUMBER = 0;
constexpr uint32_t SDT_PID_NUMBER = 17;

// The text of a packet's tag, such as "0:1[5123]:(pcr=8100000)+12"; 62 characters at most.
struct tag_string {
    char text[PKTIDX_LEN];
};
tag_string tag_text(const packet_tag &tag);
tag_string tag_text(const tsan_ctx *tc); // the current packet's

// A packet's tag tells the programme's PCR as it was when the packet came. What it is made of is
// read from the context as long as that has not changed, and taken down just before it does: before
// the packet's own PCR is stored, or a host changes the packet's number.
void mk_ptag(tsan_ctx *tc);

// The four bytes of a packet's header as one number (ISO/IEC 13818-1, 2.4.3.2), and its fields.
typedef uint32_t ts_header;

inline ts_header read_header(const uint8_t *pkt)
{
    return uint32_t{pkt[0]} << 24 | uint32_t{pkt[1]} << 16 | uint32_t{pkt[2]} << 8 | pkt[3];
}
constexpr bool ts_is_sync(ts_header h) { return h >> 24 == MPEG_TS_SYNC; }
constexpr bool ts_is_unit_start(ts_header h) { return (h & 0x400000) != 0; }
constexpr uint32_t ts_pid(ts_header h) { return h >> 8 & 0x1FFF; }
constexpr bool ts_has_adaptation(ts_header h) { return (h & 0x20) != 0; }
constexpr int ts_cc(ts_header h) { return static_cast<int>(h & 0x0F); }

// Whether the header says payload. That is what counters go by, also when the adaptation field
// leaves no room for any: some packagers fill up with such packets.
constexpr bool ts_says_payload(ts_header h) { return (h & 0x10) != 0; }

// Whether the header says payload and no adaptation field.
constexpr bool ts_has_payload_only(ts_header h) { return (h & 0x30) == 0x10; }

// The header of a packet that follows in sequence and starts no payload unit.
constexpr ts_header ts_continued(ts_header h)
{
    return (h & ~ts_header{0x40000F}) | ((h + 1) & 0x0F);
}

// Where the payload begins in the packet; TS_PACKET_SIZE without one, also when the adaptation
// field reaches the packet's end.
inline size_t ts_payload_start(ts_header h, const uint8_t *pkt)
{
    if (!ts_says_payload(h)) [[unlikely]]
        return TS_PACKET_SIZE;
    if (!ts_has_adaptation(h)) [[likely]]
        return 4;
    return std::min<size_t>(5u + pkt[4], TS_PACKET_SIZE);
}

inline bool ts_has_payload(ts_header h, const uint8_t *pkt)
{
    return ts_payload_start(h, pkt) < TS_PACKET_SIZE;
}

inline std::span<const uint8_t> ts_get_payload(const uint8_t *pkt)
{
    const size_t start = ts_payload_start(read_header(pkt), pkt);
    return {pkt + start, TS_PACKET_SIZE - start};
}

// ---- Bookkeeping

// What is rare on the road stands in packet.cpp.
void take_sdt(tsan_ctx *tc);
void take_pat(tsan_ctx *tc, const uint8_t *pkt);
void take_pmt(tsan_ctx *tc, uint32_t pid, const uint8_t *pkt);
void take_pcr(tsan_ctx *tc, const uint8_t *pkt);
void take_pes_header(tsan_ctx *tc, const uint8_t *pkt);
void trace_ignored(tsan_ctx *tc, uint32_t pid);

// Whether the packet carries a PCR of the current programme. One on a PID that the PMT does not
// list as a stream is never read.
inline bool pkt_has_pcr(const dgram_info &dat, ts_header h, const uint8_t *pkt)
{
    return ts_has_adaptation(h) && ts_pid(h) == dat.program->pcr_pid && ts_has_pcr(pkt) != 0;
}

// Keeps account of a packet whose first byte is the sync byte: tables, PCR, time stamps. Returns
// the index of its stream in the current programme, or -1 when it belongs to no known stream.
inline int upsert_pkt_info(tsan_ctx *tc, const dgram_info &dat, ts_header h, const uint8_t *pkt)
{
    if (ts_pid(h) == SDT_PID_NUMBER) [[unlikely]] {
        take_sdt(tc);
        return -1; // not processed further, even if a PMT lists the PID
    }
    if (dat.stream != nullptr) [[likely]] {
        if (pkt_has_pcr(dat, h, pkt)) [[unlikely]]
            take_pcr(tc, pkt);
        if (ts_is_unit_start(h)) [[unlikely]]
            take_pes_header(tc, pkt);
        return static_cast<int>(dat.istm);
    }
    if (dat.is_pat)
        take_pat(tc, pkt);
    else if (dat.is_pmt)
        take_pmt(tc, ts_pid(h), pkt);
    else if (tc->cfg.trk.misc_ignore) [[unlikely]]
        trace_ignored(tc, ts_pid(h));
    return -1;
}

// The counters of a class of streams.
struct class_counters {
    uint64_t sa_stats::*pcount;
    uint64_t sa_stats::*acount;
};
constexpr class_counters COUNTERS_OF[]{
    {&sa_stats::v_pcount, &sa_stats::v_acount}, // CLASS_VIDEO
    {&sa_stats::a_pcount, &sa_stats::a_acount}, // CLASS_AUDIO
    {&sa_stats::s_pcount, &sa_stats::s_acount}, // CLASS_DATA
};

// Adds one packet to the counters of its stream and of the stream's programme. A packet of a known
// stream is always both processed and analysed.
inline void inc_pkt_stat(sa_stats *stat, stream_info *si)
{
    const class_counters &of_class = COUNTERS_OF[si->sclass];
    si->pcount += 1;
    si->acount += 1;
    stat->pcount += 1;
    stat->acount += 1;
    stat->*of_class.pcount += 1;
    stat->*of_class.acount += 1;
}

// ---- Checks

// Notes the first analysed packet of a programme.
void begin_analysis(tsan_ctx *tc);

// Checks the fresh time stamps of an audio stream against the PCR and the reference stream.
void check_stamps(tsan_ctx *tc, stream_info *si);

// Runs the checks of one packet of the current stream. Returns 0.
inline int analyze_pkt(tsan_ctx *tc, const dgram_info &dat, ts_header h, const uint8_t *pkt)
{
    stream_info &si = *dat.stream;
    if (dat.program->stat.acount == 0) [[unlikely]]
        begin_analysis(tc);
    ++tc->atotal;
    inc_pkt_stat(&dat.program->stat, &si);
    if (!tc->cfg.is_enabled) [[unlikely]]
        return 0;
    if (tc->cfg.cc_track && ts_says_payload(h))
        cc_track(tc, ts_pid(h), ts_cc(h));
    // The stream that carries the PCR is not timed against itself, and only audio is timed; other
    // streams serve as references alone.
    if (si.stype == 'A' && (si.pts_updated || si.dts_updated) &&
        ts_pid(h) != dat.program->pcr_pid && ts_has_payload(h, pkt))
        check_stamps(tc, &si);
    return 0;
}
