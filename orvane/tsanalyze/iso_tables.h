// PAT and PMTs by the standard's rules (iso.h).
#pragma once

#include "tsanalyze/context.h"

void take_pat_by_standard(tsan_ctx *tc);
void take_pmt_by_standard(tsan_ctx *tc);
