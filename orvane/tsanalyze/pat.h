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
