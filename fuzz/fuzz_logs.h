// What the fuzz targets share.
#pragma once

#include <libtarnlink/log.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

// What the fuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// A stream that swallows everything.
inline FILE *null_stream()
{
    static FILE *const null = fopen("/dev/null", "w");
    return null;
}

// Lets every statement be formatted and swallowed.
inline void swallow_logs()
{
    log_default(&g_log, null_stream());
    log_default(&g_access_log, null_stream());
    log_set_modules(&g_log, DEBUG_level);
}
