// The bins of pictures, and the line of progress.

#include "report/bins.h"
#include "report/progress.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

TEST(bins, keep_every_alert_and_the_largest_value)
{
    for (const double step : {0.001, 1.0, -0.37, 1e6}) {
        bin_series series;
        double range = 0;
        for (int i = 0; i < 5000; ++i) {
            add_to_bins(&series, 3 + i * step, i == 4000 ? 99 : 7, 1.0 / 1024);
            range = std::abs(i * step);
        }
        widen_bins(&series, series.width * 2);
        uint64_t count = 0, max = 0;
        for (const bin &b : series.bins) {
            count += b.count;
            max = std::max(max, b.max);
        }
        EXPECT_EQ(count, 5000U);
        EXPECT_EQ(max, 99U);
        EXPECT_LE(series.bins.size(), MAX_BINS);
        const auto of_max = static_cast<int64_t>(std::floor((3 + 4000 * step) / series.width));
        EXPECT_EQ(series.bins.at(static_cast<size_t>(of_max - series.first)).max, 99U) << step;
        const auto at = static_cast<double>(series.first) * series.width;
        EXPECT_NEAR(at, std::min(3.0, 3 + 4999 * step), series.width);
        EXPECT_NEAR(static_cast<double>(series.bins.size()) * series.width, range,
                    2 * series.width);
    }
}

TEST(progress, is_shown_now_and_then_with_the_time_that_is_left)
{
    const auto before = std::chrono::steady_clock::now() - std::chrono::seconds(1000);
    progress_line line{
        .is_wanted = true, .total = 3, .total_bytes = 75'000'000'000, .start = before};
    testing::internal::CaptureStderr();
    show_progress(&line, 2, 50'000'000'000);
    show_progress(&line, 2, 60'000'000'000); // at once
    line.shown = before;
    show_progress(&line, 3, 75'000'000'000);
    end_progress(&line);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\r\033[K2 of 3 captures, 50000.0 MB, 50 MB/s, 500 s left"
              "\r\033[K3 of 3 captures, 75000.0 MB, 75 MB/s\r\033[K");
}

} // namespace
