// What a PID means: one look-up in a table that is made anew when the programme list or a stream
// table has changed.
#pragma once

#include "tsanalyze/context.h"

#include <cstdint>
#include <sys/types.h>

// Index of the first of `count` PIDs equal to `pid`, or -1.
ssize_t find_pid(const uint32_t *pids, size_t count, uint32_t pid);

// Makes the table anew: a PMT PID names its first slot in the list, which ends at its first 0; any
// other PID the first programme and stream that list it.
void rebuild_pid_slots(tsan_ctx *tc);

// Classifies the current packet by its PID.
inline const dgram_info &setup_dat(tsan_ctx *tc, uint32_t pid)
{
    tc->dat = tc->dat_of[pid];
    return *tc->dat;
}
