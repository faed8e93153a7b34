// Timing: PCR intervals, distances of audio time stamps to the PCR and to the reference stream.
#pragma once

#include "tsanalyze/context.h"

#include <cstdint>

// Checks the fresh time stamps of an audio stream of the current programme against its PCR and its
// reference stream.
void check_stamps(tsan_ctx *tc, stream_info *si);

// Checks the interval between the programme's last PCR and a new one, before that is stored.
void pcr_freq_check(tsan_ctx *tc, uint64_t pcr);
