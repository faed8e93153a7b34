// A series over a growing range, in a fixed number of bins: their width doubles when the range
// outgrows them, so memory and picture stay small whatever comes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

constexpr size_t MAX_BINS = 120;

struct bin {
    uint64_t count = 0;
    uint64_t max = 0; // largest value in it
};

// Bin i holds the values from (first + i) * width on. The width is `unit` times a power of two.
struct bin_series {
    double width = 0; // 0: nothing was added
    int64_t first = 0;
    std::vector<bin> bins;
};

// Adds a value at a place. `unit` is the least width of a bin, the same in every call.
void add_to_bins(bin_series *series, double place, uint64_t value, double unit);

// Makes the bins at least this wide; `width` is the unit times a power of two.
void widen_bins(bin_series *series, double width);
