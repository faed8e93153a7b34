// Milliseconds as clock text.
#pragma once

#include <libtarnlink/timeop.h>

#include <cstddef>
#include <cstdint>

// Writes "HH:MM:SS.mmm" into at most buflen - 1 bytes; the hours are not wrapped at 24. Text that
// does not fit breaks an invariant. Returns the length.
int ms2timestr(size_t ms, char *buf, size_t buflen);

// The same as a value, for arguments of a statement.
struct ms_text {
    char text[TIMESTR_SZ];
};
ms_text ms_timestr(uint64_t ms);

// The clock text of a 90 kHz value.
inline ms_text ticks_timestr(uint64_t ticks) { return ms_timestr(ticks / 90); }
