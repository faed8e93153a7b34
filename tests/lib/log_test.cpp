// The logger's lines, levels and streams.

#include "support/lines.h"
#include "support/logging.h"

#include <gmock/gmock.h>

#include <syslog.h>

using namespace testing;
using internal::CaptureStderr, internal::GetCapturedStderr;

namespace {

loglevel_ctx g_llctx;

struct logger : Test {
    logger()
    {
        setenv("TZ", "UTC", 1);
        get_timezone(1);
        log_set_modules(&g_log, NORM_level);
        glog_init("tests");
    }
    ~logger() override { g_llctx = {}; }

    test_clock clock{1772366400}; // 2026-03-01 12:00:00
    log_text app{&g_log}, access{&g_access_log};
    temp_dir dir;
};

} // namespace

TEST_F(logger, lays_out_a_line)
{
    const auto line = [this](const char *pfx, pid_t pid, uint32_t flags, int level) {
        log_set_pfx(&g_log, pfx);
        log_set_pid(&g_log, pid);
        log_timefmt(&g_log, flags);
        EXPECT_EQ(logbuf_prepare(&g_log, level, "%s\n", "text"), 5);
        log_flush(&g_log, level);
        return app.take();
    };
    g_now.tv_nsec = 7999;
    EXPECT_EQ(line("", 42, 0, MIN_level), "2026-03-01 12:00:00.000007 UTC 42  text\n");
    EXPECT_EQ(line(nullptr, -1, f_RAW_TIME, MIN_level + 1), "1772366400.000007 ( ? )  text\n");
    log_set_group(&g_log, 0x4E435346); // FSCN
    EXPECT_EQ(line("a b", 42, f_FMT_SECONDS, PANIC_level),
              "a b  2026-03-01 12:00:00 UTC 42  (PNC)  FSCN  text\n");
    EXPECT_EQ(line(nullptr, 0, f_MONOTONIC_TIMER, INFO_level),
              "2026-03-01 11:51:40.000007 UTC (INF)  FSCN  text\n");
    EXPECT_EQ(line(std::string(64, 'p').c_str(), 42, f_NO_TIME, SECTION_level),
              std::string(63, 'p') + "  (SCT)  FSCN  text\n");
}

TEST_F(logger, cuts_what_does_not_fit)
{
    for (const size_t length : {2047U, 2048U, 5000U}) { // of the whole line
        const std::string line = "(NRM)  " + std::string(length - 7, 'x');
        CaptureStderr();
        LOG_STMT(NORM_level, "%s", line.c_str() + 7);
        log_access("%s", line.c_str());
        EXPECT_EQ(split_lines(GetCapturedStderr()).size(), length < 2048 ? 0U : 2U);
        EXPECT_EQ(app.take(), line.substr(0, 2047));
        EXPECT_EQ(access.take(), length < 2048 ? line : "");
    }
}

TEST_F(logger, tells_its_own_failures_on_standard_error)
{
    log_set_pfx(&g_log, "begun");
    const auto failure = [](uint32_t flags, time_t now, const char *text) {
        log_timefmt(&g_log, flags);
        g_now.tv_sec = now;
        CaptureStderr();
        LOG_STMT(ERR_level, "%s", text);
        return GetCapturedStderr();
    };
    EXPECT_THAT(failure(f_NO_TIME, 1, ""), StartsWith("fprintf/vfprintf: "));
    EXPECT_EQ(failure(0, INT64_MAX, "text\n"),
              "gmtime_r/localtime_r: Value too large for defined data type\n"
              "logbuf_prepare: time buffer error (n=-1)\n");
    EXPECT_EQ(app.take(), "begun  (ERR)  begun  ");
}

TEST_F(logger, filters_by_module_and_section)
{
    int evaluated = 0;
    LOG_STMT(INFO_level, "%d\n", ++evaluated);
    LOG_STMT(NORM_level, "%d\n", ++evaluated);
    g_llctx.mod = 5;
    g_mod_ll[5] = CRIT_level;
    LOG_STMT(WARN_level, "%d\n", ++evaluated);
    LOG_STMT(CRIT_level, "%d\n", ++evaluated);
    g_llctx = {.mod = 0, .sec = 3}; // the statement's own level plays no part now
    LOG_STMT(PANIC_level, "%d\n", ++evaluated);
    g_sec_ll[3] = NORM_level;
    LOG_STMT(DEBUG_level, "%d\n", ++evaluated);
    EXPECT_EQ(app.take(), "(NRM)  1\n(CRI)  2\n(DBG)  3\n");
}

TEST_F(logger, copies_alerts_to_syslog)
{
    log_mirror(&g_log, log_fp(&g_log)); // the same stream: nothing comes twice
    CaptureStderr();
    config_syslog(&g_log, "ident", LOG_PERROR, LOG_LOCAL3); // shows what syslog gets
    LOG_STMT(NORM_level, "once\n");
    LOG_STMT(WARN_level, "copied\n");
    g_sigctx = 1;
    LOG_STMT(ERR_level, "in a handler\n");
    g_sigctx = 0;
    EXPECT_EQ(GetCapturedStderr(), "ident: (WRN)  copied\n");
    EXPECT_EQ(app.take(), "(NRM)  once\n(WRN)  copied\n(ERR)  in a handler\n");
}

TEST_F(logger, opens_files)
{
    const std::string path = dir.file("log", "old\n");
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), F_APPEND_OLD), 0);
    LOG_STMT(NORM_level, "appended\n");
    EXPECT_EQ(file_text(path), "old\n(NRM)  appended\n"); // at once
    EXPECT_EQ(g_log.total_out, 4U + 16U);
    log_close(&g_log);
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), 0), 0);
    EXPECT_EQ(file_text(path), "");
    log_close(&g_log);
    CaptureStderr();
    EXPECT_EQ(log_open_ex(&g_log, ("/tmp" + std::string(124, '/') + "x").c_str(), 0), -1);
    EXPECT_EQ(log_open_ex(&g_log, "/missing/log", 0), -1);
    EXPECT_THAT(GetCapturedStderr(), EndsWith(" ERROR(2): No such file or directory\n"));
}

TEST_F(logger, traces_calls_and_names_levels)
{
    char buf[4096];
    const int length = snprintf_btrace(buf, sizeof buf, "at %d:\n", 7);
    EXPECT_EQ(length, static_cast<int>(strlen(buf)));
    EXPECT_THAT(buf, StartsWith("at 7:\n#0: "));
    EXPECT_THAT(std::string(buf), AllOf(HasSubstr("\n#1: "), EndsWith("\n")));
    EXPECT_EQ(snprintf_btrace(buf, 4, "at %d:\n", 7), -1);
    int level = 9;
    EXPECT_TRUE(match_log_level("Warning", &level) == 0 && level == WARN_level);
    EXPECT_EQ(match_log_level("panic", &level), -1);
    EXPECT_STREQ(log_level_str(CRIT_level), "ctitical");
}
