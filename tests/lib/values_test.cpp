// Number parsing, look-ups of settings and PCR arithmetic.

#include <libtarnlink/config.h>
#include <libtarnlink/log.h>
#include <libtarnlink/mpegts.h>
#include <libtarnlink/strops.h>

#include "support/capture.h"

#include <gtest/gtest.h>

#include <libconfig.h>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class values : public testing::Test {
protected:
    values()
    {
        g_log = {};
        log_default(&g_log, stderr);
        log_timefmt(&g_log, f_NO_TIME);
    }
};

} // namespace

TEST_F(values, numbers_with_suffixes)
{
    const std::string zeros(63, '0');
    const struct {
        std::string text;
        int rc;
        int64_t value;
    } cases[] = {
        {"20K", 0, 20480},
        {"10kB", 0, 10240},
        {"1.5M", 0, 1572864},
        {"-1.9", 0, -1},
        {"2 gb", 0, 2147483648},
        {"", 0, 0},
        {"K", 0, 0},
        {"1e3", -5, 0},
        {"0x10", -5, 0},
        {"2X", -5, 0},
        {"1K ", -5, 0},
        {zeros + "0K", -3, 0},
        {zeros + "K", 0, 0},
        {std::string(400, '9'), -4, 0},
        {"9223372036854775808", 0, INT64_MAX},
        {"-9223372036854775808", 0, INT64_MIN},
        {"9223372036854777856", -2, 0},
        {"8589934593G", -2, 0},
    };
    for (const auto &c : cases) {
        int64_t value = 0;
        EXPECT_EQ(a2int64(c.text.c_str(), &value), c.rc) << c.text;
        EXPECT_EQ(a2int64(c.text.c_str(), nullptr), c.rc) << c.text;
        EXPECT_EQ(value, c.value) << c.text;
    }
    double number = 0;
    EXPECT_EQ(a2double("0.5K", &number), 0);
    EXPECT_EQ(number, 512);
    EXPECT_DEATH(a2double(nullptr, &number), "text");
}

TEST_F(values, settings)
{
    config_t document;
    config_init(&document);
    ASSERT_EQ(config_read_string(&document, R"(number = -1; big = 5000000000L; text = "2 KB";
        letter = "2X"; flag = true; empty = ""; fits = "1234567"; long = "12345678";
        longest = "12345678901234567890123456789012";)"),
              CONFIG_TRUE);
    const config_setting_t *root = config_root_setting(&document);
    CaptureStderr();
    const struct {
        const char *key;
        int rc;
        size_t value;
    } sizes[] = {
        {"number", 0, SIZE_MAX}, {"big", 0, 5000000000}, {"text", 0, 2048}, {"letter", -5, 1},
        {"flag", 0, 77},         {"empty", 0, 77},       {"absent", 0, 77}, {"longest", -1, 1},
    };
    for (const auto &c : sizes) {
        size_t value = 1;
        EXPECT_EQ(load_config_setting_size(root, c.key, &value, 77), c.rc) << c.key;
        EXPECT_EQ(value, c.value) << c.key;
    }
    const struct {
        const char *key;
        const char *default_text;
        int rc;
        const char *text;
    } texts[] = {
        {"fits", nullptr, 0, "1234567"}, {"long", nullptr, -1, "old"},
        {"number", nullptr, 0, ""},      {"absent", "a default", 0, "a defau"},
        {"empty", "default", 0, ""},
    };
    for (const auto &c : texts) {
        char text[8] = "old";
        EXPECT_EQ(load_config_setting_str(root, c.key, text, sizeof text, c.default_text), c.rc);
        EXPECT_STREQ(text, c.text);
    }
    const std::string where = "(ERR)  load_config_setting_str: ";
    EXPECT_EQ(GetCapturedStderr(), where +
                                       "longest value is too long (32), max = 32 characters.\n" +
                                       where + "long value is too long (8), max = 8 characters.\n");
    config_destroy(&document);
}

TEST_F(values, pcr_distances)
{
    const std::string where = "(WRN)  calc_pcr_delta: PCR ";
    const struct {
        uint64_t first, last;
        int flags;
        uint64_t delta;
        std::string log;
    } cases[] = {
        {P2_33 - 900, 900, 0, 1800, ""},
        {P2_33 - 44999, 0, 0, 44999, ""},
        {P2_33 - 45000, 0, 0, 0, where + "last=0 < first=8589889592 diff=18446744065119662024\n"},
        {1000, 1000, 0, 0, ""},
        {0, 5000, 0, 5000, ""},
        {5000, 4000, 0, 0, where + "last=4000 < first=5000 diff=18446744073709550616\n"},
        {0, 90000, F_MAX_PCRD, 90000, ""},
        {10, 45010, F_MAX_PCRD, 45000, ""},
        {10, 90000, 0, 89990, ""},
        {10, 90000, F_MAX_PCRD, 89990,
         where + "gap=89990 exceeds max=45000; last=90000, first=10\n"},
    };
    for (const auto &c : cases) {
        CaptureStderr();
        EXPECT_EQ(calc_pcr_delta(c.first, c.last, c.flags), c.delta);
        EXPECT_EQ(GetCapturedStderr(), c.log);
    }
    EXPECT_DEATH(calc_pcr_delta(5000, 4000, F_ABRT_PCR), "last=4000 < first=5000");
    EXPECT_EQ(pcr_delta_ms(0, 89), 0U);
    EXPECT_EQ(pcr_delta_ms(0, 90), 1U);
    EXPECT_EQ(pcr_delta_ms(0, 90 * (uint64_t{1} << 32) + 90), 1U);
}

TEST_F(values, pcr_of_a_packet)
{
    for (const uint64_t pcr : {uint64_t{0}, uint64_t{1}, P2_33 - 1, uint64_t{0x155555555}}) {
        capture_builder c;
        c.pcr(0x100, pcr);
        ASSERT_TRUE(ts_has_pcr(c.at(0)));
        EXPECT_EQ(ts_pcr_base(c.at(0)), pcr);
        c.last(4) = 0;
        EXPECT_FALSE(ts_has_pcr(c.at(0)));
    }
    capture_builder c;
    c.packet(0x100, {.adaptation = 5});
    c.payload(0x100);
    EXPECT_FALSE(ts_has_pcr(c.at(0)) || ts_has_pcr(c.at(1)));
}
