// Invariants: conditions that only a programming error, or an input the system has no answer to,
// can break. They stay armed in every build type.
#pragma once

// Prints "FILE: FUNCTION: invariant `EXPRESSION' broken" on standard error and aborts the process.
[[noreturn]] void invariant_failed(const char *expression, const char *file, const char *function);

// Checks `...`; the text that is printed is the expression as it stands in the code. Some of the
// expressions are known to people who read crash reports and keep their C casts.
#define INVARIANT(...)                                                                             \
    do {                                                                                           \
        _Pragma("GCC diagnostic push")                                                             \
            _Pragma("GCC diagnostic ignored \"-Wold-style-cast\"") if (__VA_ARGS__) [[likely]]     \
        {                                                                                          \
        }                                                                                          \
        else invariant_failed(#__VA_ARGS__, __FILE__, __func__);                                   \
        _Pragma("GCC diagnostic pop")                                                              \
    } while (false)
