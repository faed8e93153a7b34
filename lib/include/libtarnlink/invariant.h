// Invariants: conditions that only a programming error, or an input the system has no answer to,
// can break. They stay armed in every build type.
#pragma once

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// Flushes standard output and the streams of the three logs, prints
// "FILE: FUNCTION: invariant `EXPRESSION' broken" on standard error and aborts the process.
__attribute__((noreturn, cold)) void invariant_failed(const char *expression, const char *file,
                                                      const char *function);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#ifdef __cplusplus
#define INVARIANT_CASTS _Pragma("GCC diagnostic ignored \"-Wold-style-cast\"")
#else
#define INVARIANT_CASTS
#endif

// Checks `...`; the text that is printed is the expression as it stands in the code. Some of the
// expressions are known to people who read crash reports and keep their C casts.
#define INVARIANT(...)                                                                             \
    do {                                                                                           \
        _Pragma("GCC diagnostic push") INVARIANT_CASTS if (__VA_ARGS__) {}                         \
        else invariant_failed(#__VA_ARGS__, __FILE__, __func__);                                   \
        _Pragma("GCC diagnostic pop")                                                              \
    } while (0)
