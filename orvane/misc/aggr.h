// Running aggregates: count, sum, extremes, of the current period and of the whole run.
#pragma once

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
void inc_aval(aggr_val *av, uint64_t val);

// Begins a new period.
void reset_aval(aggr_val *av);

// Writes an aggregate as one line for people. The average of nothing is the platform's NaN.
void dump_aval(FILE *fp, const char *msg, const aggr_val *av);

// Writes an aggregate as one STAT line to the access log; PIDs of -1 stand for none.
void log_aval_stats(const char *tag, const char *src, int ref_pid, int src_pid, const aggr_val *av);
