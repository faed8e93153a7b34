// PAT tracking: the list of programmes, and PAT-DIFF.
//
// Every later complete PAT is compared with the first one of the context, never with the one before
// it. Programme records are bound to positions of the list and do not move when PIDs do.
#pragma once

#include "tsanalyze/context.h"
#include "tsanalyze/psi.h"

#include <span>

// Takes a PAT section (PAT_HEADER_LEN bytes or more) while no programme is known.
void process_PAT(tsan_ctx *tc, std::span<const uint8_t> bytes);

// Takes a PAT section once programmes are known.
void another_PAT(tsan_ctx *tc, std::span<const uint8_t> bytes);

// Index of the first of `count` PIDs equal to `pid`, or -1.
ssize_t find_pid(const uint32_t *pids, size_t count, uint32_t pid);

// Rebuilds the meaning of every PID after the programme list or a stream table has changed: a PMT
// PID names its first slot, any other PID the first programme and stream that list it.
void rebuild_pid_slots(tsan_ctx *tc);
