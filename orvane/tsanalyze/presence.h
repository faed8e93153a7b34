// Presence: lost sync and silent streams.
#pragma once

#include "tsanalyze/context.h"

// Arms the check for silent streams anew, max_ndat_pcount processed packets of the current
// programme from now; without a current programme its count is taken for 0. Does nothing when
// max_ndat_pcount is 0.
void reset_ndat_pcount(tsan_ctx *tc);

// Processed packets of the current programme; 0 without one.
inline uint64_t current_pcount(const tsan_ctx *tc)
{
    return prog(tc) != nullptr ? prog(tc)->stat.pcount : 0;
}

// Reports the streams that never carried a packet, unless not `forced` and, by the standard's
// rules, not due.
void find_silent_streams(tsan_ctx *tc, bool forced);

// The same when the check is due or `forced`. By the standard's rules it may be due.
inline void check_pcount(tsan_ctx *tc, bool forced)
{
    if (forced || current_pcount(tc) >= tc->ndat_pcount)
        find_silent_streams(tc, forced);
}
