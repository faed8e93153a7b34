// Timing: PCR intervals, distances of audio time stamps to the PCR and to the reference stream.
#pragma once

#include "tsanalyze/context.h"

#include <cstdint>

// Checks the interval between the programme's last PCR and a new one, before that is stored.
void pcr_freq_check(tsan_ctx *tc, uint64_t pcr);

// Checks a stream's last PTS (or DTS) against the programme's last PCR.
void ck_pcr(tsan_ctx *tc, bool is_pts, const stream_info *si);

// Checks a stream's last PTS (or DTS) against that of the reference stream.
void ck_tstamp(tsan_ctx *tc, bool is_pts, const stream_info *ref, const stream_info *si);
