// PMT tracking: the stream table of a programme, and PMT-DIFF.
//
// A change is found by comparing printed texts: any difference of version, PCR PID, streams or
// descriptors is one.
#pragma once

#include "tsanalyze/context.h"

#include <span>

// Class letter of a stream_type: 'V', 'A', 'S', or '?' for what is not analysed.
char code2stype(uint8_t scode);

// Fills the stream table of the current programme from the first PMT (PMT_HEADER_LEN bytes or
// more).
void process_PMT(tsan_ctx *tc, std::span<const uint8_t> bytes, uint32_t pid);

// Compares a later PMT with the programme's snapshot. Returns 1 when it differs (the alert was
// raised and the snapshot replaced), else 0.
int cmp_PMT(tsan_ctx *tc, std::span<const uint8_t> bytes, uint32_t pid);

// Rebuilds the stream table from a changed PMT; streams that stay keep their counters.
void update_PMT(tsan_ctx *tc, std::span<const uint8_t> bytes, uint32_t pid);

// Adds a stream to the current programme. Returns its index, or -1 when it is not analysed or the
// table is full.
int add_stream(tsan_ctx *tc, uint32_t pid, uint8_t scode);
