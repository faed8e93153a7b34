#include "misc/aggr.h"

#include <libtarnlink/log.h>

namespace {

// No guard against an empty aggregate: its average prints as the platform's NaN.
double average(uint64_t total, uint64_t count)
{
    return static_cast<double>(total) / static_cast<double>(count);
}

} // namespace

void keep_extremes(aggr_val *av)
{
    if (av->count == 0)
        return;
    av->g_min = std::min(av->g_min, av->min);
    av->g_max = std::max(av->g_max, av->max);
}

void reset_aval(aggr_val *av) { av->count = av->total = av->min = av->max = 0; }

void dump_aval(FILE *fp, const char *msg, const aggr_val *av)
{
    fprintf(fp,
            "%s:\t\tlocal-avg  = %.02f (V=%lu/N=%lu) min(V)/max(V)=%lu/%lu, "
            "global-avg = %.02f (V=%lu/N=%lu) min(V)/max(V)=%lu/%lu\n",
            msg, average(av->total, av->count), av->total, av->count, av->min, av->max,
            average(av->g_total, av->g_count), av->g_total, av->g_count, av->g_min, av->g_max);
}

void log_aval_stats(const char *tag, const char *src, int ref_pid, int src_pid, const aggr_val *av)
{
    log_access("STAT %s %s %d %d %.02f %lu %lu %lu %lu %.02f %lu %lu %lu %lu\n", tag, src, ref_pid,
               src_pid, average(av->total, av->count), av->count, av->total, av->min, av->max,
               average(av->g_total, av->g_count), av->g_count, av->g_total, av->g_min, av->g_max);
}
