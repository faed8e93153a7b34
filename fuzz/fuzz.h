// What the fuzz targets share.
#pragma once

#include <libtarnlink/log.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

// What the fuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

inline size_t g_swallowed; // bytes, since the process began

// A stream that swallows everything, without a system call.
inline FILE *null_stream()
{
    static FILE *const null = fopencookie(nullptr, "w",
                                          {.read = nullptr,
                                           .write =
                                               [](void *, const char *, size_t size) {
                                                   g_swallowed += size;
                                                   return ssize_t(size);
                                               },
                                           .seek = nullptr,
                                           .close = nullptr});
    return null;
}

// Lets every statement up to a level be formatted, without time stamps, and swallowed.
inline void swallow_logs(int level = DEBUG_level)
{
    for (log_ctx *log : {&g_log, &g_access_log}) {
        log_default(log, null_stream());
        log_timefmt(log, f_NO_TIME);
    }
    log_set_modules(&g_log, level);
}

// Ends the run with a finding unless the condition holds.
inline void expect(bool condition)
{
    if (!condition)
        abort();
}
