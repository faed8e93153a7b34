// Number parsing and bounded text copies.
#pragma once

#include <cstddef>
#include <cstdint>

// Converts a decimal number with an optional binary-multiple suffix (K, Kb, M, Mb, G, Gb in any
// case). Returns 0, or -3 (number longer than 63 characters), -4 (not convertible or out of range),
// -5 (unknown suffix; any letter starts one, an exponent's too). `out` may be null.
int a2double(const char *text, double *out);

// The same truncated toward zero; -2 when the result does not fit a signed 64-bit number.
int a2int64(const char *text, int64_t *out);

// Copies at most size - 1 characters and always terminates; size must not be 0.
void copy_text(char *dst, size_t size, const char *src);
