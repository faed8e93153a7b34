// Continuity counters: breaks, resets, and losses that several streams share.
#pragma once

#include "tsanalyze/context.h"

#include <libtarnlink/invariant.h>

#include <cstdint>

// Reports an unexpected counter of stream `si` of the current programme: a reset when it is a zero
// that comes at least cc_max_ms0_ms after the previous unexpected zero, else a break.
void cc_error(tsan_ctx *tc, stream_info *si, uint32_t pid, int cc);

void alert_cc_break(tsan_ctx *tc, uint32_t pid, int last, int cc);
void alert_cc_rst(tsan_ctx *tc, uint32_t pid, int last, int cc, int64_t delta_ms);

// Writes the trace line of a counter.
void trace_cc(tsan_ctx *tc, uint32_t pid, int cc);

// Reports the losses correlated in the segment that ends.
void alert_cc_mlr(tsan_ctx *tc);

// Checks the counter (0 to 15) of a packet with payload. Its PID is a stream of the current
// programme. A repeated counter is an error too and the discontinuity indicator is not looked at,
// both deliberately.
inline void cc_track(tsan_ctx *tc, uint32_t pid, int cc)
{
    const ssize_t i = tc->dat->istm;
    INVARIANT(i >= 0 && i < (ssize_t)prog(tc)->nstreams);
    stream_info &si = *tc->dat->stream;
    if (si.cc.value != -1) {
        if (cc == ((si.cc.value + 1) & 15)) [[likely]]
            tc->last_cca.nmlr = -1;
        else
            cc_error(tc, &si, pid, cc);
    }
    si.cc.value = cc;
    if (tc->cfg.trk.cc_track) [[unlikely]]
        trace_cc(tc, pid, cc);
}
