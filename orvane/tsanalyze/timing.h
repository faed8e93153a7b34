// Timing: PCR intervals, distances of audio time stamps to the PCR and to the reference stream.
#pragma once

#include "tsanalyze/context.h"

#include <cstdint>

// Checks the fresh time stamps of an audio stream of the current programme against its PCR and its
// reference stream.
void check_stamps(tsan_ctx *tc, stream_info *si);

// The same by the standard's rules: each once, and only against what is of its time base.
void check_stamps_once(tsan_ctx *tc, const stream_info *si);

// Raises PCR-FREQ for a new PCR `delta` ms away from the last one.
void alert_pcr_freq(tsan_ctx *tc, uint64_t pcr, uint64_t delta);

// Distance of two clock values in milliseconds, in either order: the plain difference, or, by the
// standard's rules, the shorter way round the 33 bits.
uint32_t distance_ms(const tsan_ctx *tc, uint64_t a, uint64_t b);

// Checks the interval between the programme's last PCR and a new one, before that is stored.
void pcr_freq_check(tsan_ctx *tc, uint64_t pcr);
