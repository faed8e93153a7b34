// Limits, and the bins of pictures.

#include "report/bins.h"
#include "report/verdict.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

namespace {

TEST(verdict, limits_are_read_or_refused_with_a_reason)
{
    const std::pair<const char *, const char *> cases[] = {
        {"CC-BRK=0", "CC-BRK=0"},
        {" AV-DELTA+ / 257 = 12 ", "AV-DELTA+/257=12"},
        {"all/0=18446744073709551615", "all/0=18446744073709551615"},
        {"damaged=1", "damaged=1"},
        {"CC-BRK", "is not of the form"},
        {"CC-BRQ=0", "unknown kind; known are all, damaged, CC-BRK"},
        {"cc-brk=0", "unknown kind"},
        {"CC-BRK=", "has no number"},
        {"CC-BRK=-1", "has no number"},
        {"CC-BRK=18446744073709551616", "has no number"},
        {"CC-BRK/8192=1", "names no PID"},
        {"CC-BRK/=1", "names no PID"},
        {"damaged/5=1", "names no PID"},
    };
    for (const auto &[text, expected] : cases) {
        alert_limit limit;
        const std::string fault = parse_limit(text, &limit);
        EXPECT_THAT(fault.empty() ? limit_name(limit) + "=" + std::to_string(limit.max) : fault,
                    testing::HasSubstr(expected))
            << text;
    }
}

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
        const auto at = static_cast<double>(series.first) * series.width;
        EXPECT_NEAR(at, std::min(3.0, 3 + 4999 * step), series.width);
        EXPECT_NEAR(static_cast<double>(series.bins.size()) * series.width, range,
                    2 * series.width);
    }
}

} // namespace
