// Number parsing, PCR arithmetic and names of facilities.

#include "support/logging.h"

#include "common/appcfg.h"
#include <libtarnlink/mpegts.h>
#include <libtarnlink/strops.h>

#include <gtest/gtest.h>

#include <array>

TEST(values, numbers_with_suffixes)
{
    const auto number = [](const std::string &text) {
        int64_t value = 7;
        const int rc = a2int64(text.c_str(), &value);
        return rc == 0 ? value : rc + value - 7; // it is left as it was
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
                                                      {"9223372036854777856", NUMBER_TOO_LARGE},
                                                      {"-8388608T", NUMBER_BAD_SUFFIX},
                                                      {"-8589934592g", INT64_MIN},
                                                      {"-8589934593g", NUMBER_TOO_LARGE}};
    for (const auto &[text, value] : cases)
        EXPECT_EQ(number(text), value) << text;
    EXPECT_EQ(number(std::string(63, '0') + "K"), 0);
    EXPECT_EQ(number(std::string(64, '0') + "K"), NUMBER_TOO_LONG);
    EXPECT_EQ(number(std::string(400, '9')), NUMBER_OUT_OF_RANGE);
    EXPECT_EQ(a2int64("1", nullptr), NUMBER_OK);
    EXPECT_EQ(a2double("1", nullptr), NUMBER_OK);
    EXPECT_DEATH(a2double(nullptr, nullptr), "a2double: invariant `text != nullptr' broken");
}

TEST(values, pcrs_of_packets)
{
    const std::array<uint8_t, 11> pcr{0x47, 0, 0, 0x20, 7, 0x10, 0x12, 0x34, 0x56, 0x78, 0x9A};
    EXPECT_EQ(ts_has_pcr(pcr.data()), 1);
    EXPECT_EQ(ts_pcr_base(pcr.data()), 0x2468ACF1U);
    for (const size_t lacking : {3U, 4U, 5U}) {
        auto other = pcr;
        other[lacking] = 0;
        EXPECT_EQ(ts_has_pcr(other.data()), 0) << lacking;
    }
}

TEST(values, syslog_facilities)
{
    for (const int number : {0, 1, 2, 3, 4, 5, 6, 7}) {
        const std::string name = "local" + std::to_string(number);
        EXPECT_EQ(str2fac((name + "x").c_str()), 128 + 8 * number);
        EXPECT_EQ(fac2str(128 + 8 * number), name);
    }
    EXPECT_EQ(str2fac("USER"), 8);
    EXPECT_STREQ(fac2str(8), "user");
    for (const char *none : {"local8", "Local1", "local"})
        EXPECT_EQ(fac2str(str2fac(none)), std::string("#unknown#"));
}

TEST(values, pcr_distances)
{
    log_text app(&g_log);
    EXPECT_EQ(calc_pcr_delta(P2_33 - 44999, 0, 0), 44999u); // the shorter side of the wrap
    EXPECT_EQ(calc_pcr_delta(P2_33 - 45000, 0, 0), 0u);
    EXPECT_EQ(calc_pcr_delta(0, 50000, F_MAX_PCRD), 50000u);
    EXPECT_EQ(calc_pcr_delta(10, 45010, F_MAX_PCRD), 45000u);
    EXPECT_EQ(calc_pcr_delta(10, 90000, F_MAX_PCRD), 89990u);
    EXPECT_EQ(pcr_delta_ms(0, 89), 0u);
    EXPECT_EXIT(calc_pcr_delta(45001, 1, F_ABRT_PCR), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(app.take(),
              R"((WRN)  calc_pcr_delta: PCR last=0 < first=8589889592 diff=18446744065119662024
(WRN)  calc_pcr_delta: PCR gap=89990 exceeds max=45000; last=90000, first=10
)");
}
