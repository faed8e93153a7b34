// Presence: lost sync and silent streams.
#pragma once

#include "tsanalyze/context.h"

// Arms the check for silent streams anew, max_ndat_pcount processed packets of the current
// programme from now; without a current programme its count is taken for 0. Does nothing when
// max_ndat_pcount is 0.
void reset_ndat_pcount(tsan_ctx *tc);

// Reports the streams that never carried a packet, when the check is due or `forced`.
void check_pcount(tsan_ctx *tc, bool forced);
