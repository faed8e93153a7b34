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

// Begins the tag of a packet that was counted and classified. It tells the programme's PCR as it is
// at this moment; what it is made of is therefore kept before that, or the packet's number, changes
// (keep_ptag), and read from the context as long as it has not.
inline void mk_ptag(tsan_ctx *tc)
{
    tc->ptag_kept = false;
}
void keep_ptag(tsan_ctx *tc);

inline uint32_t ts_pid(const uint8_t *pkt)
{
    return (pkt[1] & 0x1Fu) << 8 | pkt[2];
}

// Where the payload begins in the packet; TS_PACKET_SIZE without one, also when the adaptation
// field reaches the packet's end.
inline size_t ts_payload_start(const uint8_t *pkt)
{
    if ((pkt[3] & 0x10) == 0)
        return TS_PACKET_SIZE;
    if ((pkt[3] & 0x20) == 0) [[likely]]
        return 4;
    return std::min<size_t>(5u + pkt[4], TS_PACKET_SIZE);
}

inline bool ts_has_payload(const uint8_t *pkt)
{
    return ts_payload_start(pkt) < TS_PACKET_SIZE;
}

inline std::span<const uint8_t> ts_get_payload(const uint8_t *pkt)
{
    const size_t start = ts_payload_start(pkt);
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
inline bool pkt_has_pcr(const tsan_ctx *tc, uint32_t pid, const uint8_t *pkt)
{
    return tc->dat.ipg >= 0 && pid != 0 && pid == prog(tc)->pcr_pid && ts_has_pcr(pkt) != 0;
}

// Keeps account of a packet whose first byte is the sync byte: tables, PCR, time stamps. Returns
// the index of its stream in the current programme, or -1 when it belongs to no known stream.
inline int upsert_pkt_info(tsan_ctx *tc, uint32_t pid, const uint8_t *pkt)
{
    const int istm = static_cast<int>(tc->dat.istm);
    if (pid == SDT_PID_NUMBER) [[unlikely]] {
        take_sdt(tc);
        return -1; // not processed further, even if a PMT lists the PID
    }
    if (tc->dat.is_pat) [[unlikely]] {
        take_pat(tc, pkt);
    } else if (tc->dat.is_pmt) [[unlikely]] {
        take_pmt(tc, pid, pkt);
    } else {
        const bool has_pcr = pkt_has_pcr(tc, pid, pkt);
        if (has_pcr) [[unlikely]]
            take_pcr(tc, pkt);
        if (istm >= 0) {
            if ((pkt[1] & 0x40) != 0) [[unlikely]] // a payload unit starts here
                take_pes_header(tc, pkt);
        } else if (!has_pcr && tc->cfg.trk.misc_ignore) [[unlikely]] {
            trace_ignored(tc, pid);
        }
    }
    return istm;
}

// Adds one packet to the counters of stream `idx` of the current programme and of the programme.
inline void inc_pkt_stat(tsan_ctx *tc, int idx, bool processed)
{
    stream_info &si = prog(tc)->stm[static_cast<size_t>(idx)];
    sa_stats &stat = prog(tc)->stat;
    ++(processed ? si.pcount : si.acount);
    ++(processed ? stat.pcount : stat.acount);
    ++(processed ? stat.*si.class_pcount : stat.*si.class_acount);
}

inline void mark_processed(tsan_ctx *tc, int idx)
{
    inc_pkt_stat(tc, idx, true);
}

// ---- Checks

// Notes the first analysed packet of a programme.
void begin_analysis(tsan_ctx *tc);

// Checks the fresh time stamps of an audio stream against the PCR and the reference stream.
void check_stamps(tsan_ctx *tc, stream_info *si);

// Runs the checks of one packet of stream `idx` of the current programme. Returns 0.
inline int analyze_pkt(tsan_ctx *tc, uint32_t pid, const uint8_t *pkt, int idx)
{
    if (prog(tc)->stat.acount == 0) [[unlikely]]
        begin_analysis(tc);
    ++tc->atotal;
    inc_pkt_stat(tc, idx, false);
    if (!tc->cfg.is_enabled)
        return 0;
    const bool has_payload = ts_has_payload(pkt);
    if (tc->cfg.cc_track && has_payload)
        cc_track(tc, pid, pkt[3] & 0x0F);
    // The stream that carries the PCR is not timed against itself, and only audio is timed; other
    // streams serve as references alone.
    stream_info &si = prog(tc)->stm[static_cast<size_t>(idx)];
    if (si.stype == 'A' && (si.pts_updated || si.dts_updated) && has_payload &&
        pid != prog(tc)->pcr_pid)
        check_stamps(tc, &si);
    return 0;
}
