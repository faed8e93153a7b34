// What a PID means: one look-up in a table that is made anew when the programme list or a stream
// table has changed.
#pragma once

#include "tsanalyze/context.h"

#include <cstdint>
#include <sys/types.h>

// Index of the first of `count` PIDs equal to `pid`, or -1.
ssize_t find_pid(const uint32_t *pids, size_t count, uint32_t pid);

// Makes the table anew: a PMT PID names its first slot in the list, which ends at its first 0; any
// other PID the first programme and stream that list it. By the standard's rules a programme's PCR
// PID is listed too, and each programme that lists a PID uses it (next_user_of).
void rebuild_pid_slots(tsan_ctx *tc);

// What the PID means to the next programme that lists it; null behind the last one.
inline const dgram_info *next_user_of(const dgram_info &dat)
{
    if (dat.stream != nullptr)
        return dat.stream->next_user;
    return dat.program != nullptr ? dat.program->next_user : nullptr;
}

// Whether the programme has a PCR: PID 0x1FFF says that it has none (ISO/IEC 13818-1, 2.4.4.9).
inline bool has_pcr_pid(const program_info &pg)
{
    return pg.pcr_pid != PAT_PID_NUMBER && pg.pcr_pid != NULL_PID_NUMBER;
}

// Classifies the current packet by its PID.
inline const dgram_info &setup_dat(tsan_ctx *tc, uint32_t pid)
{
    tc->dat = tc->dat_of[pid];
    return *tc->dat;
}
