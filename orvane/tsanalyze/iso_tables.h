// PAT and PMTs by the standard's rules (iso.h).
#pragma once

#include "tsanalyze/context.h"

// Takes a packet of the PAT or of a PMT.
void take_table_by_standard(tsan_ctx *tc);
