// Number parsing and PCR arithmetic.

#include "support/logging.h"

#include <libtarnlink/mpegts.h>
#include <libtarnlink/strops.h>

#include <gtest/gtest.h>

TEST(values, numbers_with_suffixes)
{
    const auto number = [](const std::string &text) {
        int64_t value = 7;
        const int rc = a2int64(text.c_str(), &value);
        return rc == 0 ? value : rc;
    };
    const std::pair<const char *, int64_t> cases[] = {{"20K", 20480},
                                                      {"10kB", 10240},
                                                      {"1.5M", 1572864},
                                                      {"-1.9", -1},
                                                      {"2 gb", 2147483648},
                                                      {"", 0},
                                                      {"-", 0},
                                                      {"1e3", NUMBER_BAD_SUFFIX},
                                                      {"1K ", NUMBER_BAD_SUFFIX},
                                                      {"9223372036854775808", INT64_MAX},
                                                      {"9223372036854777856", NUMBER_TOO_LARGE}};
    for (const auto &[text, value] : cases)
        EXPECT_EQ(number(text), value) << text;
    EXPECT_EQ(number(std::string(63, '0') + "K"), 0);
    EXPECT_EQ(number(std::string(64, '0') + "K"), NUMBER_TOO_LONG);
    EXPECT_EQ(number(std::string(400, '9')), NUMBER_OUT_OF_RANGE);
}

TEST(values, pcr_distances)
{
    log_text app(&g_log);
    EXPECT_EQ(calc_pcr_delta(P2_33 - 44999, 0, 0), 44999u); // the shorter side of the wrap
    EXPECT_EQ(calc_pcr_delta(P2_33 - 45000, 0, 0), 0u);
    EXPECT_EQ(calc_pcr_delta(0, 5000, 0), 5000u);
    EXPECT_EQ(calc_pcr_delta(10, 45010, F_MAX_PCRD), 45000u);
    EXPECT_EQ(calc_pcr_delta(10, 90000, F_MAX_PCRD), 89990u);
    EXPECT_EQ(pcr_delta_ms(0, 89), 0u);
    EXPECT_EQ(app.take(),
              R"((WRN)  calc_pcr_delta: PCR last=0 < first=8589889592 diff=18446744065119662024
(WRN)  calc_pcr_delta: PCR gap=89990 exceeds max=45000; last=90000, first=10
)");
}
