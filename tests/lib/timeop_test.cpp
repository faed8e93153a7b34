// Clocks, time-outs and time strings.

#include "support/logging.h"

#include <gmock/gmock.h>

namespace {

constexpr time_t MARCH_1 = 1772384400; // 2026-03-01 12:00:00 EST
constexpr time_t JULY_1 = 1782921600;  // 2026-07-01 12:00:00 EDT

void set_zone(const char *zone)
{
    setenv("TZ", zone, 1);
    tzset();
    get_timezone(1);
}

std::string text_of(timespec tms, uint32_t flags, size_t room = TIMESTR_SZ)
{
    char buf[TIMESTR_SZ];
    return mk_timestr(&tms, flags, buf, room) < 0 ? "failed" : buf;
}

struct timeop : testing::Test {
    timeop() { set_zone("EST5EDT,M3.2.0,M11.1.0"); } // New York

    test_clock clock{MARCH_1};
    log_text app{&g_log};
};

} // namespace

TEST_F(timeop, timed_out_is_strictly_later)
{
    const auto out = [](timespec last, timespec tmout, timespec now) {
        g_now = now;
        const int is_out = timed_out(&last, &tmout);
        EXPECT_EQ(timed_out_real(&last, &tmout), is_out);
        g_now = {};
        EXPECT_EQ(timed_out_ext(&last, &tmout, &now), is_out);
        const tspan last_span{TSPAN_TIME, {last}};
        tspan tmout_span{TSPAN_TIME, {}};
        set_tspan(&tmout_span, &tmout, 0);
        EXPECT_EQ(tspan_timed_out(&last_span, &tmout_span, &now, 0), is_out != 0);
        return is_out;
    };
    EXPECT_EQ(out({1, 500}, {2, 0}, {2, 900}), 0);
    EXPECT_EQ(out({1, 500}, {2, 0}, {4, 0}), 1);
    EXPECT_EQ(out({1, 500}, {2, 500}, {3, 1000}), 0);
    EXPECT_EQ(out({1, 500}, {2, 500}, {3, 1001}), 1);
    EXPECT_EQ(out({1, 999999999}, {0, 1}, {2, 0}), 0);
    EXPECT_EQ(out({1, 999999999}, {0, 1}, {2, 1}), 1);
}

TEST_F(timeop, a_difference_has_no_sign)
{
    const timespec a{1, 900000000}, b{3, 899900000};
    EXPECT_EQ(diff_ms(&a, &b), 1999);
    g_now = {BOOT + 4, 0};
    EXPECT_EQ(diff_ms(&a, nullptr), 2100);
    EXPECT_EQ(diff_ms(nullptr, &a), 2100);
    EXPECT_EQ(diff_ms(nullptr, nullptr), 0);
    const timespec none{-1, 7000000};
    EXPECT_EQ(tms2ms(&none), -1);
}

TEST_F(timeop, makes_time_strings)
{
    EXPECT_EQ(text_of({MARCH_1, 123456999}, 0), "2026-03-01 12:00:00.123456 EST");
    EXPECT_EQ(text_of({MARCH_1, 7000}, f_GMT_TIME), "2026-03-01 17:00:00.000007 EST");
    EXPECT_EQ(text_of({MARCH_1, 7000}, f_FMT_SECONDS), "2026-03-01 12:00:00 EST");
    EXPECT_EQ(text_of({60, 999999999}, f_RAW_TIME), "60.999999");
    EXPECT_EQ(text_of({JULY_1, 0}, 0), "2026-07-01 12:00:00.000000 EST"); // the zone as looked up
    for (const auto &[nsec, text] : {std::pair{-7500L, "-00007"}, {12345678901L, "12345678"}})
        EXPECT_EQ(text_of({MARCH_1, nsec}, 0), std::string("2026-03-01 12:00:00.") + text + " EST");
}

// The text of a second is kept, but not for another zone; the zone's name is that of the look-up.
TEST_F(timeop, follows_the_zone)
{
    const auto after = [](const char *zone) {
        text_of({JULY_1, 0}, f_FMT_SECONDS);
        setenv("TZ", zone, 1);
        tzset();
        return text_of({JULY_1, 0}, f_FMT_SECONDS);
    };
    EXPECT_EQ(after("CST6CDT,M3.2.0,M11.1.0"), "2026-07-01 11:00:00 EST");
    EXPECT_EQ(after("CST6"), "2026-07-01 10:00:00 EST");
    EXPECT_EQ(after("CST7"), "2026-07-01 09:00:00 EST");
    get_timezone(1);
    EXPECT_EQ(after("UTC"), "2026-07-01 16:00:00 CST");
    testing::internal::CaptureStderr();
    g_now.tv_sec = INT64_MAX;
    EXPECT_EQ(get_timezone(1), nullptr);
    g_now.tv_sec = MARCH_1;
    EXPECT_EQ(after("<a-name-too-long>0"), "2026-07-01 16:00:00 CST");
    EXPECT_EQ(get_timezone(1), nullptr);
    EXPECT_EQ(text_of({JULY_1, 0}, f_FMT_SECONDS), "2026-07-01 16:00:00#ERR#");
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("localtime_r: Value too large .*\nstrftime: .*\n"));
}

TEST_F(timeop, refuses_what_does_not_fit)
{
    EXPECT_EQ(text_of({JULY_1, 0}, 0, 30), "2026-07-01 12:00:00.000000 ES"); // let through, cut
    testing::internal::CaptureStderr();
    EXPECT_EQ(text_of({JULY_1, 0}, 0, 29), "failed");
    EXPECT_EQ(text_of({JULY_1, 0}, f_RAW_TIME, 17), "failed");
    EXPECT_EQ(text_of({INT64_MAX, 0}, 0), "failed");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mk_timestr: timestamp buffer needs 30 bytes, only 29 provided\n"
              "gmtime_r/localtime_r: Value too large for defined data type\n");
}

// The handler's own stamps are right or refused.
TEST_F(timeop, stamps_are_true_under_signals)
{
    static constexpr time_t OWN = MARCH_1 + 30;
    static unsigned wrong;
    static const auto stamp = [](time_t sec) {
        const timespec tms{sec, 0};
        char buf[TIMESTR_SZ];
        const int n = mk_timestr(&tms, f_FMT_SECONDS, buf, sizeof buf);
        const int seconds = (buf[17] - '0') * 10 + buf[18] - '0';
        if (n != TIME_BUSY && seconds != static_cast<int>(sec - MARCH_1))
            ++wrong;
    };
    static time_t count;
    do_interrupted([] { stamp(MARCH_1 + count++ / 2 % 20); }, [] { stamp(OWN); });
    EXPECT_EQ(wrong, 0U);
}

TEST_F(timeop, reads_time_strings_back)
{
    const auto read = [](const char *text, uint32_t flags) {
        timespec tms{9, 9};
        const int n = scan_log_time(text, &tms, flags);
        return std::tuple<int, time_t, long>(n, tms.tv_sec, tms.tv_nsec);
    };
    constexpr std::tuple<int, time_t, long> FAILED{TIME_FAILED, 0, 0};
    EXPECT_EQ(read("2026-03-01 12:00:00.123456 EST", 0), std::tuple(7, MARCH_1, 123456000));
    EXPECT_EQ(read("2026-07-01 12:00:00", f_FMT_SECONDS), // no summer time
              std::tuple(6, JULY_1 + 3600, 0));
    EXPECT_EQ(read("60.999999", f_RAW_TIME), std::tuple(2, 60, 999999000));
    EXPECT_EQ(read("60", f_RAW_TIME), FAILED);
    EXPECT_EQ(read("2026-03-01 12:00:00", 0), FAILED);
    EXPECT_EQ(read("2026-03-01 12:00", f_FMT_SECONDS), FAILED);
    EXPECT_EQ(read("1969-12-31 18:59:59", f_FMT_SECONDS), FAILED);
    EXPECT_EQ(app.take(), "(ERR)  scan_log_time: cannot make time from [1969-12-31 18:59:59]\n");
}

TEST_F(timeop, ticks_wrap)
{
    const auto over = [](uint32_t last, uint32_t tmout, uint32_t now) {
        tspan last_span{TSPAN_TICKS, {}}, tmout_span{TSPAN_TICKS, {}};
        set_tspan(&last_span, nullptr, last);
        set_tspan(&tmout_span, nullptr, tmout);
        return tspan_timed_out(&last_span, &tmout_span, nullptr, now);
    };
    EXPECT_TRUE(over(0, 9, 1));
    EXPECT_FALSE(over(5, 3, 7));
    EXPECT_TRUE(over(5, 3, 8));
    EXPECT_FALSE(over(UINT32_MAX, 2, 1));
    EXPECT_TRUE(over(UINT32_MAX, 2, 2));
    static tspan none{}, ticks{TSPAN_TICKS, {}};
    EXPECT_DEATH(set_tspan(&none, nullptr, 0), "set_tspan: invariant `0' broken");
    EXPECT_DEATH(tspan_timed_out(&none, &none, nullptr, 0), "tspan_timed_out: invariant `0'");
    EXPECT_DEATH(tspan_timed_out(&none, &ticks, nullptr, 0), "`tmout->mode == last->mode' broken");
    g_now.tv_sec = -1;
    EXPECT_DEATH(now_seconds(), "clock_gettime: ");
}

TEST_F(timeop, spans_and_dates)
{
    char buf[32];
    const auto span = [&](long sec, size_t room) {
        return mk_timespan(sec, buf, room) == TIME_OK ? buf : "failed";
    };
    EXPECT_STREQ(span(90061, sizeof buf), "01d 01h:01m:01s");
    EXPECT_STREQ(span(86400, sizeof buf), "01d 00h:00m:00s");
    EXPECT_STREQ(span(86399, 12), "23h:59m:59s");
    EXPECT_STREQ(span(59, 11), "00h:00m:59"); // fits but for its end
    EXPECT_STREQ(span(59, 10), "failed");
    EXPECT_STREQ(span(86400, 3), "failed");
    EXPECT_STREQ(span(86400, 14), "failed");
    EXPECT_EQ(get_endofday_utime(MARCH_1), MARCH_1 + 43199);
    EXPECT_EQ(get_endofday_utime(INT64_MAX), TIME_FAILED);
    EXPECT_EQ(app.take(), "(ERR)  get_endofday_utime: localtime_r() FAILED\n");
    EXPECT_EQ(mk_gmt_date(INT64_MAX, buf, 11), TIME_FAILED);
    EXPECT_EQ(mk_gmt_date(MARCH_1, buf, 11), TIME_OK);
    EXPECT_STREQ(buf, "2026-03-01");
    EXPECT_EQ(mk_gmt_date(MARCH_1, buf, 9), TIME_FAILED);
    EXPECT_EQ(app.take(), "(ERR)  mk_gmt_date: timestamp buffer needs 10 bytes, only 9 provided\n");
}
