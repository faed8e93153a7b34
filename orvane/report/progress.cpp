#include "report/progress.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds PERIOD(200);

} // namespace

progress_line begin_progress(size_t total, uint64_t total_bytes)
{
    return {.is_wanted = isatty(STDERR_FILENO) == 1, .total = total, .total_bytes = total_bytes};
}

void show_progress(progress_line *line, size_t done, uint64_t bytes)
{
    const auto now = std::chrono::steady_clock::now();
    if (!line->is_wanted || now - line->shown < PERIOD)
        return;
    line->shown = now;
    const double seconds =
        std::max(std::chrono::duration<double>(now - line->start).count(), 0.001);
    const double rate = static_cast<double>(bytes) / seconds;
    fprintf(stderr, "\r\033[K%zu of %zu captures, %.1f MB, %.0f MB/s", done, line->total,
            static_cast<double>(bytes) / 1e6, rate / 1e6);
    if (rate > 0 && line->total_bytes > bytes)
        fprintf(stderr, ", %.0f s left", static_cast<double>(line->total_bytes - bytes) / rate);
    fflush(stderr);
}

void end_progress(progress_line *line)
{
    if (line->is_wanted && line->shown.time_since_epoch().count() != 0)
        fputs("\r\033[K", stderr);
}
