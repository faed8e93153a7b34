// Running aggregates: count, sum, extremes, of the current period and of the whole run.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>

struct aggr_val {
    uint64_t count;   // values of the period
    uint64_t g_count; // values of the run
    uint64_t total;   // their sums
    uint64_t g_total;
    uint64_t min; // extremes of the period
    uint64_t max;
    uint64_t g_min; // extremes of the run
    uint64_t g_max;
};

// Adds one value. The first value of a later period reaches the run's extremes only with the next
// value of that period; reports rely on it.
inline void inc_aval(aggr_val *av, uint64_t val)
{
    if (av->g_count == 0) {
        av->min = av->max = av->g_min = av->g_max = val;
    } else if (av->count == 0) {
        av->min = av->max = val; // the run's extremes follow with the next value, intended
    } else {
        av->min = std::min(av->min, val);
        av->max = std::max(av->max, val);
        av->g_min = std::min(av->g_min, av->min);
        av->g_max = std::max(av->g_max, av->max);
    }
    av->count += 1;
    av->total += val;
    av->g_count += 1;
    av->g_total += val;
}

// Lets the run's extremes have all of the period that ends.
void keep_extremes(aggr_val *av);

// Begins a new period.
void reset_aval(aggr_val *av);

// Writes an aggregate as one line for people. The average of nothing is the platform's NaN.
void dump_aval(FILE *fp, const char *msg, const aggr_val *av);

// Writes an aggregate as one STAT line to the access log; PIDs of -1 stand for none.
void log_aval_stats(const char *tag, const char *src, int ref_pid, int src_pid, const aggr_val *av);
