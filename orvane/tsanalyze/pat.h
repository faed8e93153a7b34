// PAT tracking: the list of programmes, and PAT-DIFF.
//
// Every later complete PAT is compared with the first one of the context, never with the one before
// it. Programme records are bound to positions of the list and do not move when PIDs do.
#pragma once

#include "tsanalyze/context.h"

#include <span>

// Takes a PAT section (PAT_HEADER_LEN bytes or more) while no programme is known.
void process_PAT(tsan_ctx *tc, std::span<const uint8_t> bytes);

// Takes a PAT section once programmes are known.
void another_PAT(tsan_ctx *tc, std::span<const uint8_t> bytes);

// ---- What both rules about PATs tell

void report_added(const tsan_ctx *tc, uint32_t pid);
void report_missing(const tsan_ctx *tc, uint32_t pid);
void report_unused_pat(const tsan_ctx *tc);               // it is repeated, and memory may be back
void report_dropped(const tsan_ctx *tc, size_t ndropped); // programmes there is no room for

// Raises PAT-DIFF for a new PAT with `nprogs` programmes. The PAT so far is that of the context.
void alert_pat_diff(tsan_ctx *tc, size_t nadded, size_t ndel, size_t nprogs);
