#include <libtarnlink/invariant.h>

#include <libtarnlink/log.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

void invariant_failed(const char *expression, const char *file, const char *function)
{
    fflush(stdout);
    // Straight to the streams: what is broken may be the logger.
    for (const log_ctx *log : {&g_log, &g_access_log, &g_stats_log})
        for (FILE *fp : {log->fp, log->mirror_fp})
            if (fp != nullptr)
                fflush(fp);
    fprintf(stderr, "%s: %s: invariant `%s' broken\n", file, function, expression);
    abort();
}
