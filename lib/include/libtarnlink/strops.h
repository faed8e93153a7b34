// Number parsing and bounded text copies. Nothing here keeps state: any thread may call it.
#pragma once

#include <stddef.h>
#include <stdint.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// What the conversions return; the settings look-ups pass it on.
enum number_status {
    NUMBER_OK = 0,
    NUMBER_TOO_LARGE = -2,    // beyond a signed 64-bit number
    NUMBER_TOO_LONG = -3,     // more than 63 characters before the suffix
    NUMBER_OUT_OF_RANGE = -4, // larger or nearer to zero than a double can hold
    NUMBER_BAD_SUFFIX = -5,   // any letter starts a suffix, that of an exponent too
};

// Converts a decimal number with an optional binary-multiple suffix (K, Kb, M, Mb, G, Gb in any
// case: powers of 1024). Digits end at the first character that is none: "" and "-" are 0, "7 8"
// is 7. Returns a number_status; `out` (may be null) is left as it was on failure. A null `text`
// is an invariant broken.
int a2double(const char *text, double *out);

// The same truncated toward zero. 2^63 itself gives the largest number.
int a2int64(const char *text, int64_t *out);

// Copies at most size - 1 bytes and always terminates; size must not be 0.
void copy_text(char *dst, size_t size, const char *src);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
