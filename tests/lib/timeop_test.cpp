// Clocks, time-outs and time strings.

#include <libtarnlink/log.h>
#include <libtarnlink/timeop.h>

#include <gtest/gtest.h>

#include <cstdlib>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

timespec g_now;

int settable_clock(clockid_t clk_id, timespec *tms)
{
    *tms = clk_id == CLOCK_MONOTONIC ? timespec{50, 0} : g_now;
    return clk_id == CLOCK_TAI ? -1 : 0;
}

void set_zone(const char *zone)
{
    setenv("TZ", zone, 1);
    tzset();
    get_timezone(1);
}

class timeop : public testing::Test {
protected:
    timeop()
    {
        set_clock_reader(settable_clock);
        g_now = {1772384400, 0};
        set_zone("EST5EDT,M3.2.0,M11.1.0"); // New York
        g_log = {};
        log_default(&g_log, stderr);
        log_timefmt(&g_log, f_NO_TIME);
    }
    ~timeop() override
    {
        set_zone("UTC");
        set_clock_reader(nullptr);
    }
};

constexpr time_t MARCH_1 = 1772384400; // 2026-03-01 12:00:00 EST
constexpr time_t JULY_1 = 1782921600;  // 2026-07-01 12:00:00 EDT

} // namespace

TEST_F(timeop, timed_out_is_strictly_later)
{
    const struct {
        timespec last, tmout, now;
        int expected;
    } cases[] = {
        {{1, 500}, {2, 500}, {3, 1000}, 0},          {{1, 500}, {2, 500}, {3, 1001}, 1},
        {{1, 999999999}, {0, 1}, {2, 0}, 0},         {{1, 999999999}, {0, 1}, {2, 1}, 1},
        {{1, 999999998}, {0, 1}, {1, 999999999}, 0}, {{5, 0}, {0, 0}, {4, 999999999}, 0},
    };
    for (const auto &c : cases) {
        g_now = c.now;
        EXPECT_EQ(timed_out(&c.last, &c.tmout), c.expected);
        EXPECT_EQ(timed_out_real(&c.last, &c.tmout), c.expected);
        g_now = {};
        EXPECT_EQ(timed_out_ext(&c.last, &c.tmout, &c.now), c.expected);
    }
    timespec now{};
    EXPECT_DEATH(set_clk_now(&now, CLOCK_TAI), "clock_gettime");
}

TEST_F(timeop, spans_of_time_and_ticks)
{
    const struct {
        uint32_t last, tmout, now;
        bool expected;
    } cases[] = {
        {0, 1000, 5, true},
        {10, 5, 14, false},
        {10, 5, 15, true},
        {5, 5, 4, true},
        {10, UINT32_MAX, 12, true},
        {UINT32_MAX, 10, 10, true},
        {UINT32_MAX, 10, 9, false},
        {10, 0, 10, true},
        {UINT32_MAX - 1, 3, 1, false}, // a tick late behind the wrap
    };
    tspan last{.mode = TSPAN_TICKS, .val{}}, tmout = last, none{};
    for (const auto &c : cases) {
        set_tspan(&last, nullptr, c.last);
        set_tspan(&tmout, nullptr, c.tmout);
        EXPECT_EQ(tspan_timed_out(&last, &tmout, nullptr, c.now), c.expected) << c.last;
    }
    const timespec second{1, 0}, later{2, 1};
    last.mode = TSPAN_TIME;
    set_tspan(&last, &second, 0);
    EXPECT_TRUE(tspan_timed_out(&last, &last, &later, 0));
    EXPECT_DEATH(tspan_timed_out(&last, &none, &later, 0), "tmout->mode == last->mode");
    EXPECT_DEATH(tspan_timed_out(&none, &none, &later, 0), "invariant `0' broken");
    EXPECT_DEATH(set_tspan(&none, &later, 0), "invariant `0' broken");
}

TEST_F(timeop, differences)
{
    const timespec a{1, 900000000}, b{3, 100000000}, close{3, 899900000}, none{-1, 5};
    timespec diff{};
    calc_timespan(&a, &b, &diff);
    EXPECT_EQ(diff.tv_sec, 1);
    EXPECT_EQ(diff.tv_nsec, 200000000);
    EXPECT_EQ(diff_ms(&a, &close), 1999);
    EXPECT_EQ(diff_ms(&close, &a), 1999);
    EXPECT_EQ(diff_ms(&a, nullptr), 48100);
    EXPECT_EQ(diff_ms(nullptr, &b), 46900);
    EXPECT_EQ(diff_ms(nullptr, nullptr), 0);
    EXPECT_EQ(tms2ms(&none), -1);
}

TEST_F(timeop, time_strings)
{
    const struct {
        timespec tms;
        uint32_t flags;
        const char *text;
    } cases[] = {
        {{MARCH_1, 123456999}, 0, "2026-03-01 12:00:00.123456 EST"},
        {{MARCH_1, 7000}, f_GMT_TIME, "2026-03-01 17:00:00.000007 EST"},
        {{MARCH_1, 7000}, f_FMT_SECONDS, "2026-03-01 12:00:00 EST"},
        {{JULY_1, 0}, 0, "2026-07-01 12:00:00.000000 EST"}, // the zone's name stays as looked up
        {{JULY_1 + 1, 0}, 0, "2026-07-01 12:00:01.000000 EST"},
        {{60, 999999999}, f_RAW_TIME, "60.999999"},
        {{61, 5}, f_MONOTONIC_TIMER | f_GMT_TIME, "1970-01-01 00:01:01.000000 EST"},
    };
    char buf[TIMESTR_SZ];
    for (const auto &c : cases) {
        EXPECT_EQ(mk_timestr(&c.tms, c.flags, buf, sizeof buf), std::ssize(std::string(c.text)));
        EXPECT_STREQ(buf, c.text);
    }
    g_now = {JULY_1, 0};
    EXPECT_STREQ(get_timezone(0), " EST");
    EXPECT_STREQ(get_timezone(1), " EDT");
    set_zone("UTC"); // a text kept of the same second must not survive
    mk_timestr(&cases[0].tms, 0, buf, sizeof buf);
    EXPECT_STREQ(buf, "2026-03-01 17:00:00.123456 UTC");
}

TEST_F(timeop, time_strings_in_short_buffers)
{
    const timespec tms{MARCH_1, 123456000};
    char buf[32];
    EXPECT_EQ(mk_timestr(&tms, 0, buf, 31), 30);
    EXPECT_STREQ(buf, "2026-03-01 12:00:00.123456 EST");
    EXPECT_EQ(mk_timestr(&tms, 0, buf, 30), 30); // cut by one and let through
    EXPECT_STREQ(buf, "2026-03-01 12:00:00.123456 ES");
    CaptureStderr();
    EXPECT_EQ(mk_timestr(&tms, 0, buf, 29), -1);
    EXPECT_EQ(mk_timestr(&tms, f_RAW_TIME, buf, 17), -1);
    const timespec never{INT64_MAX, 0};
    EXPECT_EQ(mk_timestr(&never, 0, buf, sizeof buf), -1);
    EXPECT_EQ(mk_gmt_date(INT64_MAX, buf, sizeof buf), -1);
    EXPECT_EQ(get_endofday_utime(INT64_MAX), -1);
    EXPECT_EQ(mk_gmt_date(MARCH_1, buf, 9), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "mk_timestr: timestamp buffer needs 30 bytes, only 29 provided\n"
              "gmtime_r/localtime_r: Value too large for defined data type\n"
              "gmtime: Value too large for defined data type\n"
              "(ERR)  get_endofday_utime: localtime_r() FAILED\n"
              "(ERR)  mk_gmt_date: timestamp buffer needs 10 bytes, only 9 provided\n");
    EXPECT_EQ(mk_gmt_date(MARCH_1, buf, 11), 0);
    EXPECT_STREQ(buf, "2026-03-01");
    EXPECT_EQ(mk_gmt_date(MARCH_1, buf, 10), 0);
    EXPECT_STREQ(buf, "2026-03-0");
}

TEST_F(timeop, reads_time_strings_back)
{
    const struct {
        const char *text;
        uint32_t flags;
        int fields;
        timespec tms;
    } cases[] = {
        {"2026-03-01 12:00:00.123456 EST", 0, 7, {MARCH_1, 123456000}},
        {"2026-03-01 12:00:00 anything", f_FMT_SECONDS, 6, {MARCH_1, 0}},
        {"2026-07-01 12:00:00.5", 0, 7, {JULY_1 + 3600, 5000}}, // read without daylight saving
        {"60.999999 EST", f_RAW_TIME, 2, {60, 999999000}},
        {"60", f_RAW_TIME, -1, {}},
        {"2026-03-01 12:00:00", 0, -1, {}},
        {"2026-03-01 12:00", f_FMT_SECONDS, -1, {}},
        {"", 0, -1, {}},
    };
    for (const auto &c : cases) {
        timespec tms{9, 9};
        EXPECT_EQ(scan_log_time(c.text, &tms, c.flags), c.fields) << c.text;
        EXPECT_EQ(tms.tv_sec, c.tms.tv_sec) << c.text;
        EXPECT_EQ(tms.tv_nsec, c.tms.tv_nsec) << c.text;
    }
    CaptureStderr();
    timespec tms{9, 9};
    EXPECT_EQ(scan_log_time("1969-12-31 18:59:59", &tms, f_FMT_SECONDS), -1);
    EXPECT_EQ(GetCapturedStderr(),
              "(ERR)  scan_log_time: cannot make time from [1969-12-31 18:59:59]\n");
    EXPECT_EQ(tms.tv_sec, 0);
}

TEST_F(timeop, days_and_spans)
{
    char buf[32];
    for (const auto &[seconds, text] :
         {std::pair{59, "00h:00m:59s"}, {86399, "23h:59m:59s"}, {90061, "01d 01h:01m:01s"}}) {
        EXPECT_EQ(mk_timespan(seconds, buf, sizeof buf), 0);
        EXPECT_STREQ(buf, text);
    }
    EXPECT_EQ(mk_timespan(90061, buf, 15), 0);
    EXPECT_EQ(mk_timespan(90061, buf, 14), -1);
    EXPECT_EQ(mk_timespan(90061, buf, 3), -1);
    for (const time_t midnight : {MARCH_1 - 43200, JULY_1 - 43200})
        for (const time_t second : {0, 43200, 86399})
            EXPECT_EQ(get_endofday_utime(midnight + second), midnight + 86399);
}
