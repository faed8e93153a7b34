// The logger's lines, levels and streams.

#include "support/lines.h"

#include <libtarnlink/log.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <syslog.h>
#include <unistd.h>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

loglevel_ctx g_llctx;
timespec g_now;

int settable_clock(clockid_t clk_id, timespec *tms)
{
    *tms = clk_id == CLOCK_MONOTONIC ? timespec{3661, 2000} : g_now;
    return g_now.tv_sec == 0 ? -1 : 0;
}

class logger : public testing::Test {
protected:
    logger()
    {
        setenv("TZ", "UTC", 1);
        tzset();
        set_clock_reader(settable_clock);
        g_now = {1772366400, 123456789}; // 2026-03-01 12:00:00
        get_timezone(1);
        g_log = g_access_log = {};
        log_set_modules(&g_log, NORM_level);
        log_default(&g_log, out);
        log_default(&g_access_log, out);
        glog_init("tests");
    }
    ~logger() override
    {
        fclose(out);
        g_log = g_access_log = {};
        log_set_modules(&g_log, NORM_level);
        log_default(&g_log, stderr);
        g_llctx = {};
        g_sigctx = 0;
        set_clock_reader(nullptr);
    }
    // What a stream has got since the last call.
    static std::string taken(FILE *fp)
    {
        rewind(fp);
        std::string text(8192, '\0');
        text.resize(fread(text.data(), 1, text.size(), fp));
        EXPECT_EQ(ftruncate(fileno(fp), 0), 0);
        rewind(fp);
        return text;
    }
    std::string taken() { return taken(out); }

    FILE *out = tmpfile();
    temp_dir dir;
};

} // namespace

TEST_F(logger, lays_out_a_line)
{
    constexpr uint64_t FSCN = 0x4E435346;
    const struct {
        const char *pfx;
        pid_t pid;
        uint64_t group;
        uint32_t flags;
        int level;
        const char *line;
    } cases[] = {
        {nullptr, 0, FSCN, 0, ERR_level, "2026-03-01 12:00:00.123456 UTC (ERR)  FSCN  text\n"},
        {"", 42, 0, 0, MIN_level, "2026-03-01 12:00:00.123456 UTC 42  text\n"},
        {"a b", 42, FSCN, f_FMT_SECONDS, PANIC_level,
         "a b  2026-03-01 12:00:00 UTC 42  (PNC)  FSCN  text\n"},
        {"a", 42, FSCN, f_NO_TIME, SECTION_level, "a  (SCT)  FSCN  text\n"},
        {nullptr, -1, 0, f_RAW_TIME, MIN_level + 1, "1772366400.123456 ( ? )  text\n"},
        {nullptr, 0, 0, f_MONOTONIC_TIMER, INFO_level,
         "1970-01-01 01:01:01.000002 UTC (INF)  text\n"},
    };
    for (const auto &c : cases) {
        log_set_pfx(&g_log, c.pfx);
        log_set_pid(&g_log, c.pid);
        log_set_group(&g_log, c.group);
        log_timefmt(&g_log, c.flags);
        EXPECT_EQ(logbuf_prepare(&g_log, c.level, "%s\n", "text"), 5);
        log_flush(&g_log, c.level);
        EXPECT_EQ(taken(), c.line);
    }
    logbuf_reset();
    log_flush(&g_log, NORM_level);
    EXPECT_EQ(taken(), "");
    log_set_pfx(&g_log, std::string(100, 'p').c_str());
    EXPECT_EQ(std::string(g_log.pfx), std::string(63, 'p'));
    log_set_group(&g_log, UINT64_MAX);
    EXPECT_DEATH(logbuf_prepare(&g_log, NORM_level, "text\n"), "invariant `log->group.sym8");
}

TEST_F(logger, cuts_what_does_not_fit)
{
    log_timefmt(&g_log, f_NO_TIME);
    log_timefmt(&g_access_log, f_NO_TIME);
    for (const size_t room : {2047U, 2048U, 5000U}) { // of the whole line
        const std::string text(room, 'x');
        CaptureStderr();
        LOG_STMT(NORM_level, "%s", text.c_str() + 7); // behind "(NRM)  "
        log_access("%s", text.c_str());
        const size_t problems = split_lines(GetCapturedStderr()).size();
        const std::string line = "(NRM)  " + text.substr(7);
        EXPECT_EQ(taken(), room < 2048 ? line + text : line.substr(0, 2047));
        EXPECT_EQ(problems, room < 2048 ? 0U : 2U);
    }
}

TEST_F(logger, tells_its_own_failures_on_standard_error)
{
    log_set_pfx(&g_log, "begun");
    const auto failure = [](const char *text) {
        CaptureStderr();
        LOG_STMT(ERR_level, "%s", text);
        return GetCapturedStderr();
    };
    EXPECT_THAT(failure(""), testing::StartsWith("fprintf/vfprintf: "));
    EXPECT_EQ(taken(), "begun  2026-03-01 12:00:00.123456 UTC (ERR)  ");
    log_timefmt(&g_log, 2);
    EXPECT_EQ(failure("text\n"), "logbuf_prepare: unsupported timer value: 2\n");
    log_timefmt(&g_log, 0);
    g_now.tv_sec = INT64_MAX;
    EXPECT_EQ(failure("text\n"), "gmtime_r/localtime_r: Value too large for defined data type\n"
                                 "logbuf_prepare: time buffer error (n=-1)\n");
    g_now.tv_sec = 0;
    EXPECT_THAT(failure("text\n"), testing::StartsWith("clock_gettime: "));
    EXPECT_EQ(taken(), "begun  begun  begun  ");
}

TEST_F(logger, filters_by_module_and_section)
{
    log_timefmt(&g_log, f_NO_TIME);
    int evaluated = 0;
    LOG_STMT(INFO_level, "%d\n", ++evaluated);
    LOG_STMT(NORM_level, "%d\n", ++evaluated);
    g_llctx.mod = 5;
    g_mod_ll[5] = CRIT_level;
    LOG_STMT(WARN_level, "%d\n", ++evaluated);
    LOG_STMT(CRIT_level, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 2);
    EXPECT_EQ(taken(), "(NRM)  1\n(CRI)  2\n");

    g_llctx = {.mod = 0, .sec = 3}; // the statement's own level plays no part now
    EXPECT_EQ(g_sec_ll[3], SECTION_level);
    LOG_STMT(PANIC_level, "%d\n", ++evaluated);
    g_sec_ll[3] = NORM_level;
    LOG_STMT(DEBUG_level, "section\n");
    EXPECT_EQ(evaluated, 2);
    EXPECT_EQ(taken(), "(DBG)  section\n");

    log_set_sections(&g_log, WARN_level);
    log_default(&g_log, out); // levels set explicitly stay
    EXPECT_EQ(g_sec_ll[127], WARN_level);

    log_set_modules(&g_log, INFO_level);
    log_push_mlevels();
    log_set_modules(&g_log, ERR_level);
    log_push_mlevels(); // one deep
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[127], INFO_level);
    log_set_modules(&g_log, ERR_level);
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[0], ERR_level);
}

TEST_F(logger, names_levels)
{
    const struct {
        int level;
        const char *tag, *name;
        int priority;
        std::vector<const char *> words;
    } cases[] = {
        {MIN_level, "( ? )", "??", 7, {}},
        {PANIC_level, "(PNC)", "panic", 1, {}},
        {ERR_level, "(ERR)", "error", 3, {"err", "ERROR"}},
        {CRIT_level, "(CRI)", "ctitical", 2, {"Crit", "critical"}},
        {WARN_level, "(WRN)", "warning", 4, {"warn", "Warning"}},
        {NORM_level, "(NRM)", "normal", 5, {"NORM", "normal"}},
        {INFO_level, "(INF)", "info", 6, {"info"}},
        {DEBUG_level, "(DBG)", "debug", 7, {"debug", "Dbg"}},
        {SECTION_level, "(SCT)", "section", 7, {"section", "sect"}},
        {3, "( ? )", "??", 7, {}},
    };
    int level = 99;
    for (const auto &c : cases) {
        EXPECT_STREQ(get_level_tag(c.level), c.tag);
        EXPECT_STREQ(log_level_str(c.level), c.name);
        EXPECT_EQ(get_syslog_pri(c.level), c.priority) << c.name;
        for (const char *word : c.words)
            EXPECT_TRUE(match_log_level(word, &level) == 0 && level == c.level) << word;
    }
    for (const char *word : {"panic", "ctitical", "inf", "??", ""})
        EXPECT_EQ(match_log_level(word, &level), -1) << word;

    unsetenv("TEST_LEVEL");
    EXPECT_EQ(read_level_env("TEST_LEVEL", 7), 7);
    for (const auto &[text, value] : {std::pair{"0", 0}, {"-3", -3}, {"2x", 2}, {"abc", 7}}) {
        setenv("TEST_LEVEL", text, 1);
        EXPECT_EQ(read_level_env("TEST_LEVEL", 7), value) << text;
    }
}

TEST_F(logger, copies_lines_to_mirror_and_syslog)
{
    FILE *mirror = tmpfile();
    log_timefmt(&g_log, f_NO_TIME);
    log_mirror(&g_log, mirror);
    LOG_STMT(NORM_level, "both\n");
    EXPECT_EQ(taken(), "(NRM)  both\n");
    EXPECT_EQ(taken(mirror), "(NRM)  both\n");
    log_mirror(&g_log, out);
    LOG_STMT(NORM_level, "once\n");
    EXPECT_EQ(taken(), "(NRM)  once\n");
    log_mirror(&g_log, nullptr);
    fclose(mirror);

    glog_enable_syslog("tests");
    EXPECT_EQ(g_log.syslg.option, 3);
    EXPECT_EQ(g_log.syslg.facility, 128);
    glog_disable_syslog();
    CaptureStderr();
    LOG_STMT(ERR_level, "not copied\n");
    config_syslog(&g_log, "ident", LOG_PERROR, LOG_LOCAL3); // shows what syslog gets
    LOG_STMT(NORM_level, "not copied\n");
    LOG_STMT(WARN_level, "copied\n");
    g_sigctx = 1;
    LOG_STMT(ERR_level, "not copied\n");
    EXPECT_EQ(GetCapturedStderr(), "ident: (WRN)  copied\n");
    log_default(&g_log, stderr);
    log_close(&g_log);
    EXPECT_TRUE(g_log.syslg.enabled);
    EXPECT_EQ(log_fp(&g_log), stderr);
    disable_syslog(&g_log);
}

TEST_F(logger, opens_files_and_commands)
{
    log_timefmt(&g_log, f_NO_TIME);
    const std::string path = dir.file("log", "old\n");
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), F_APPEND_OLD), 0);
    EXPECT_EQ(g_log.total_out, 4U);
    LOG_STMT(NORM_level, "appended\n");
    EXPECT_EQ(file_text(path), "old\n(NRM)  appended\n"); // at once
    EXPECT_EQ(g_log.total_out, 4U + 16U);
    log_close(&g_log);
    EXPECT_EQ(log_fp(&g_log), nullptr);
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), 0), 0);
    EXPECT_EQ(file_text(path), "");
    log_close(&g_log);

    const std::string command = "cat >" + dir.path("copy");
    ASSERT_EQ(log_popen(&g_log, command.c_str()), 0);
    LOG_STMT(NORM_level, "piped\n");
    log_close(&g_log);
    EXPECT_EQ(file_text(dir.path("copy")), "(NRM)  piped\n");

    ASSERT_EQ(log_open_ex(&g_log, nullptr, 0), 0);
    EXPECT_EQ(log_fp(&g_log), stderr);
    const std::string missing = dir.path("missing/log");
    CaptureStderr();
    EXPECT_EQ(log_open_ex(&g_log, missing.c_str(), 0), -1);
    EXPECT_EQ(log_open_ex(&g_log, ("/dev/" + std::string(124, '/')).c_str(), 0), -1);
    EXPECT_EQ(log_popen(&g_log, std::string(129, 'x').c_str()), -1);
    char ids[32];
    snprintf(ids, sizeof ids, "%u/%u", geteuid(), getegid());
    EXPECT_EQ(GetCapturedStderr(), "log_open_ex: uid/gig=" + std::string(ids) + " fopen(" +
                                       missing + ") ERROR(2): No such file or directory\n" +
                                       "Log pathname/command is too long, 128 bytes allowed\n"
                                       "Log pathname/command is too long, 128 bytes allowed\n");
    g_logmod = {};
    EXPECT_DEATH(log_open_ex(&g_log, nullptr, 0), "invariant `g_logmod.is_ready' broken");
    EXPECT_DEATH(log_popen(&g_log, "true"), "invariant `g_logmod.is_ready' broken");
    EXPECT_DEATH(glog_init(nullptr), "app_tag");
}

TEST_F(logger, writes_back_traces)
{
    char buf[4096];
    const int len = btrace_to_buf(buf, sizeof buf);
    EXPECT_EQ(static_cast<int>(strlen(buf)), len);
    EXPECT_THAT(buf, testing::ContainsRegex("^#0: [^\n]+\n#1: [^\n]+\n"));
    EXPECT_GT(snprintf_btrace(buf, sizeof buf, "%s: ", "where"), len);
    EXPECT_THAT(buf, testing::StartsWith("where: #0: "));
    EXPECT_EQ(snprintf_btrace(buf, 7, "%s: ", "where"), -1);
    memset(buf, 'z', sizeof buf);
    EXPECT_LE(btrace_to_buf(buf, 20), 20);
    EXPECT_EQ(buf[20], 'z');
}
