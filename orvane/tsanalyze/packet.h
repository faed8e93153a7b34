// The road of one packet: bookkeeping, PES time stamps and the fixed order of checks.
//
// It is walked for every packet that no shortcut takes: nothing here allocates, formats or reads a
// clock unless a line is really written.
#pragma once

#include "tsanalyze/continuity.h"
#include "tsanalyze/shortcuts.h"
#include "tsanalyze/tag.h"
#include "tsanalyze/timing.h"

#include <libtarnlink/mpegts.h>

#include <cstdint>
#include <span>

// ---- Bookkeeping

// What is rare on the road stands in packet.cpp.
void take_sdt(const tsan_ctx *tc);
void take_pat(tsan_ctx *tc);
void take_pmt(tsan_ctx *tc);
void take_pcr(tsan_ctx *tc);
void take_pes_header(tsan_ctx *tc);
void store_pcr(tsan_ctx *tc, uint64_t pcr);                     // of the current programme
void track_PMT(tsan_ctx *tc, std::span<const uint8_t> section); // ... whose PMT it is
void trace_ignored(const tsan_ctx *tc);
void trace_table(const tsan_ctx *tc);

// Whether the packet, of a stream, carries a PCR of the stream's programme. One on a PID that the
// PMT does not list as a stream is never read.
inline bool pkt_has_pcr(const tsan_ctx *tc)
{
    return hdr_has_adaptation(tc->header) && hdr_pid(tc->header) == prog(tc)->pcr_pid &&
           ts_has_pcr(tc->pkt) != 0;
}

// Keeps account of a packet whose first byte is the sync byte: tables, PCR, time stamps. Returns
// the index of its stream in the current programme, or -1 when it belongs to no known stream.
inline int upsert_pkt_info(tsan_ctx *tc)
{
    const dgram_info &dat = *tc->dat;
    if (dat.stream != nullptr) [[likely]] {
        if (pkt_has_pcr(tc)) [[unlikely]]
            take_pcr(tc);
        if (hdr_is_unit_start(tc->header)) [[unlikely]]
            take_pes_header(tc);
        return static_cast<int>(dat.istm);
    }
    if (dat.is_pat)
        take_pat(tc);
    else if (&dat == &tc->dat_sdt)
        take_sdt(tc); // not processed further, even if a PMT lists the PID
    else if (dat.is_pmt)
        take_pmt(tc);
    else if (tc->cfg.trk.misc_ignore) [[unlikely]]
        trace_ignored(tc);
    return -1;
}

// ---- Checks

// Notes the first analysed packet of a programme.
void begin_analysis(tsan_ctx *tc);

// Runs the checks of one packet of the current stream. Returns 0; another status would end the run.
inline int analyze_pkt(tsan_ctx *tc)
{
    const ts_header h = tc->header;
    stream_info &si = *tc->dat->stream;
    forget_plain(&si);
    if (prog(tc)->stat.acount == 0) [[unlikely]]
        begin_analysis(tc);
    ++tc->atotal;
    inc_pkt_stat(&prog(tc)->stat, &si);
    if (!tc->cfg.is_enabled) [[unlikely]]
        return 0;
    if (tc->cfg.cc_track && hdr_has_payload(h))
        cc_track(tc, hdr_pid(h), hdr_cc(h));
    // The stream that carries the PCR is not timed against itself, and only audio is timed; other
    // streams serve as references alone.
    if (si.stype == 'A' && (si.pts_updated || si.dts_updated) && hdr_pid(h) != prog(tc)->pcr_pid &&
        !ts_get_payload(h, tc->pkt).empty())
        check_stamps(tc, &si);
    return 0;
}
