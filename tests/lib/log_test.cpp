// The logger's lines, levels and streams.

#include "support/lines.h"
#include "support/logging.h"

#include <libtarnlink/invariant.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <fcntl.h>
#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

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

// A stream, unbuffered unless asked for. Each write takes at most as many bytes as the next step
// says, or fails with the error -step; when there are no more steps it takes all.
struct stepping_stream {
    stepping_stream(std::vector<int> plan, int buffering) : steps(std::move(plan))
    {
        setvbuf(fp, nullptr, buffering, 0);
    }
    ~stepping_stream() { fclose(fp); }
    stepping_stream(stepping_stream &&) = delete;

    static ssize_t write(void *cookie, const char *data, size_t size)
    {
        auto &s = *static_cast<stepping_stream *>(cookie);
        const int step = s.next < s.steps.size() ? s.steps[s.next++] : static_cast<int>(size);
        errno = step < 0 ? -step : errno;
        size = std::min(size, static_cast<size_t>(std::max(step, 0)));
        s.text.append(data, size);
        return static_cast<ssize_t>(size);
    }

    std::vector<int> steps;
    size_t next = 0;
    std::string text;
    FILE *fp = fopencookie(this, "w", {nullptr, write, nullptr, nullptr});
};

extern "C" {
void c_host_speaks();
long fail_allocation(long number) __attribute__((weak)); // support/fail_alloc.cpp
}

} // namespace

TEST_F(logger, lays_out_a_line)
{
    const auto line = [this](const char *pfx, pid_t pid, uint32_t flags, int level) {
        log_set_pfx(&g_log, pfx);
        log_set_pid(&g_log, pid);
        log_timefmt(&g_log, flags);
        EXPECT_EQ(log_get_pid(&g_log), pid);
        EXPECT_EQ(logbuf_prepare(&g_log, level, "%s\n", "text"), 5);
        log_flush(&g_log, level);
        return app.take();
    };
    g_now.tv_nsec = 7999;
    EXPECT_EQ(line("", 42, 0, MIN_level), "2026-03-01 12:00:00.000007 UTC 42  text\n");
    EXPECT_EQ(line(nullptr, -1, f_RAW_TIME, MIN_level + 1), "1772366400.000007 ( ? )  text\n");
    log_set_group(&g_log, 0x4E435346); // FSCN
    EXPECT_EQ(log_get_group(&g_log), 0x4E435346U);
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
        log_access("x"); // the shortest line
        EXPECT_EQ(split_lines(GetCapturedStderr()).size(), length < 2048 ? 0U : 2U);
        EXPECT_EQ(app.take(), line.substr(0, 2047));
        EXPECT_EQ(access.take(), (length < 2048 ? line : "") + "x");
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
    EXPECT_EQ(failure(f_TIMER_ID, 1, "text\n"), "logbuf_prepare: unsupported timer value: 3\n");
    EXPECT_THAT(failure(0, -1, "text\n"), StartsWith("clock_gettime: "));
    EXPECT_EQ(app.take(), "begun  (ERR)  begun  begun  begun  ");
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
    log_default(&g_log, log_fp(&g_log)); // leaves the levels alone
    LOG_STMT(DEBUG_level, "%d\n", ++evaluated);
    EXPECT_EQ(app.take(), "(NRM)  1\n(CRI)  2\n(DBG)  3\n");
    log_push_mlevels();
    log_set_modules(&g_log, INFO_level);
    log_push_mlevels(); // one deep
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[5], CRIT_level);
    g_mod_ll[5] = WARN_level;
    log_pop_mlevels(); // nothing is set aside any more
    EXPECT_EQ(g_mod_ll[5], WARN_level);
}

// The handler speaks when the outer line has its prefix, and when it waits to be written.
TEST_F(logger, a_handlers_statements_leave_the_outer_line_whole)
{
    static bool is_due;
    signal(SIGUSR1, [](int) {
        LOG_STMT(NORM_level, "inner\n");
        log_access("inner\n");
    });
    set_clock_reader([](clockid_t, timespec *tms) {
        *tms = g_now;
        return std::exchange(is_due, false) ? raise(SIGUSR1) : 0;
    });
    for (log_ctx *log : {&g_log, &g_access_log}) {
        log_set_pfx(log, "pfx");
        log_timefmt(log, f_RAW_TIME);
    }
    const auto written = [this] { return app.take() + "|" + access.take(); };
    const std::string stamp = "pfx  1772366400.000000 ", inner = stamp + "(NRM)  inner\n",
                      outer = stamp + "(NRM)  outer\n", access_inner = "|" + stamp + "inner\n";
    is_due = true;
    LOG_STMT(NORM_level, "outer\n");
    EXPECT_EQ(written(), inner + outer + access_inner);
    is_due = true;
    log_access("outer\n");
    EXPECT_EQ(written(), inner + access_inner + stamp + "outer\n");
    logbuf_prepare(&g_log, NORM_level, "outer\n");
    raise(SIGUSR1);
    log_flush(&g_log, NORM_level);
    EXPECT_EQ(written(), inner + outer + access_inner);
    signal(SIGUSR1, SIG_DFL);
}

// The stream is buffered, and the handler comes in the middle of its work.
TEST_F(logger, a_handlers_statements_leave_the_outer_lines_stream_whole)
{
    static unsigned outer, inner;
    g_log.loss.is_cut = true; // of the stream before
    ASSERT_EQ(log_popen(&g_log, ("cat >" + dir.path("log")).c_str()), LOG_OK);
    do_interrupted([] { LOG_STMT(NORM_level, "outer %u\n", ++outer); },
                   [] { LOG_STMT(NORM_level, "inner %u\n", ++inner); });
    log_close(&g_log);
    unsigned next_outer = 1, next_inner = 1;
    for (const std::string &line : split_lines(file_text(dir.path("log"))))
        if (line == "(NRM)  outer " + std::to_string(next_outer))
            ++next_outer;
        else
            ASSERT_EQ(line, "(NRM)  inner " + std::to_string(next_inner++)) << next_outer;
    EXPECT_EQ(next_outer - 1, outer);
    EXPECT_EQ(next_inner - 1, inner);
}

TEST_F(logger, writes_lines_whole_or_counts_them)
{
    const struct {
        std::vector<int> steps;
        std::string text;
        size_t lost;
        int buffering = _IONBF;
    } cases[] = {
        {{}, "first\nsecond\n", 0},
        {{-EINTR}, "first\nsecond\n", 0},
        {{2, -EINTR, 1, -EINTR, -EINTR}, "first\nsecond\n", 0},
        {{-ENOSPC, -ENOSPC}, "second\n", 1},
        {{2, -ENOSPC}, "fi\nsecond\n", 1}, // a line feed ends the piece
        {{2, -ENOSPC, -ENOSPC}, "fi", 2},
        {std::vector<int>(101, -EINTR), "second\n", 1}, // not for ever
        {{-ENOSPC}, "\nsecond\n", 1, _IOLBF},           // how much was written, nobody knows
        {{2, -EINTR, -EINTR}, "fi\nsecond\n", 1, _IOLBF},
        {{2, -ENOSPC, -ENOSPC}, "fi", 2, _IOLBF},
    };
    for (const auto &c : cases) {
        stepping_stream stream(c.steps, c.buffering);
        g_log.loss.count = 0; // a new stream owes no line feed
        log_default(&g_log, stream.fp);
        for (const char *line : {"first\n", "second\n"}) {
            logbuf_prepare(&g_log, MIN_level, "%s", line);
            log_flush(&g_log, MIN_level);
        }
        EXPECT_EQ(stream.text, c.text);
        EXPECT_EQ(log_lost(&g_log), c.lost) << c.text;
        EXPECT_EQ(ferror(stream.fp), 0);
    }
}

// Two lines that cannot be written, then one that can.
TEST_F(logger, goes_on_when_it_can_be_written_again)
{
    signal(SIGPIPE, SIG_IGN);
    int unread[2];
    ASSERT_EQ(pipe(unread), 0);
    close(unread[0]);
    for (const int bad : {open("/dev/full", O_WRONLY), unread[1], -1})
        for (line_loss *loss : {&g_log.loss, &g_access_log.loss, &g_log.mirror_loss}) {
            const int good = open(dir.file("log", "").c_str(), O_WRONLY);
            FILE *fp = fdopen(dup(good), "a");
            g_log.fp = loss == &g_log.loss ? fp : nullptr;
            g_access_log.fp = loss == &g_access_log.loss ? fp : nullptr;
            g_log.mirror_loss.is_cut = true; // of the mirror before
            log_mirror(&g_log, loss == &g_log.mirror_loss ? fp : nullptr);
            if (loss != &g_log.mirror_loss) // mirrors become so
                setvbuf(fp, nullptr, _IOLBF, 0);
            for (const int fd : {bad, bad, good}) {
                fd < 0 ? close(fileno(fp)) : dup2(fd, fileno(fp));
                LOG_STMT(NORM_level, "line\n");
                log_access("(NRM)  line\n");
            }
            EXPECT_EQ(file_text(dir.path("log")), // a pipe takes lines whole
                      (bad == unread[1] ? "" : "\n") + std::string("(NRM)  line\n"));
            EXPECT_EQ(std::exchange(*loss, {}).count, 2U);
            fclose(fp);
        }
    signal(SIGPIPE, SIG_DFL);
}

TEST_F(logger, lives_without_memory)
{
    if (fail_allocation == nullptr)
        GTEST_SKIP() << "the sanitizer has allocations of its own";
    static const std::string path = dir.path("log"), name = "log_test." + std::to_string(getpid());
    static const lard_t ring = lard_create(name.c_str(), 64);
    static char text[99];
    int (*const works[])() = {[] { return lard_printf(ring, "%.20000f", 7.0); },
                              [] { return snprintf_btrace(text, sizeof text, "%d", 7); },
                              [] {
                                  const int rc = log_popen(&g_log, "cat >/dev/null");
                                  LOG_STMT(NORM_level, "line\n");
                                  log_close(&g_log);
                                  return rc;
                              },
                              [] {
                                  if (log_open_ex(&g_log, path.c_str(), 0) != LOG_OK)
                                      return int{LOG_FAILED};
                                  config_syslog(&g_log, "ident", LOG_PERROR, LOG_USER);
                                  LOG_STMT(WARN_level, "line\n");
                                  const int rc = log_rotate(&g_log);
                                  LOG_STMT(WARN_level, "line\n");
                                  EXPECT_NE(log_fp(&g_log), nullptr); // a lost file was tried again
                                  log_close(&g_log);
                                  return rc;
                              }};
    CaptureStderr();
    log_default(&g_log, stderr);
    std::vector<int> failures;
    for (const auto work : works)
        for (size_t round = 0, held = 0; round < 2; ++round) { // some is allocated once and kept
            failures.resize(failures.size() + (round == 0 ? 1 : 0));
            for (long number = 1, left = 0; left == 0; ++number) {
                fail_allocation(number);
                failures.back() += work() < 0 ? 1 : 0;
                left = fail_allocation(0);
            }
            EXPECT_LE(round * mallinfo2().uordblks, held);
            held = mallinfo2().uordblks;
        }
    GetCapturedStderr();
    EXPECT_THAT(failures, ElementsAre(8, Ge(2), 4, 4));
    EXPECT_EQ(lard_snapshot(ring, fileno(tmpfile())), 2 * 20002);
    lard_destroy(ring);
}

TEST_F(logger, tells_of_a_stream_that_cannot_be_closed)
{
    CaptureStderr();
    ASSERT_EQ(log_popen(&g_log, "exit 3"), LOG_OK); // its business
    log_close(&g_log);
    signal(SIGCHLD, SIG_IGN); // nobody waits for it
    ASSERT_EQ(log_popen(&g_log, "exit 3"), LOG_OK);
    log_close(&g_log);
    signal(SIGCHLD, SIG_DFL);
    ASSERT_EQ(log_open_ex(&g_log, dir.path("log").c_str(), 0), LOG_OK);
    close(fileno(g_log.fp));
    log_close(&g_log);
    EXPECT_EQ(GetCapturedStderr(),
              "log_close: fclose error(9) for the application log: Bad file descriptor\n");
}

TEST_F(logger, keeps_what_was_said_before_an_invariant_broke)
{
    const std::string path = dir.path("log");
    for (FILE **place : {&g_log.fp, &g_access_log.fp, &g_stats_log.mirror_fp, &stdout}) {
        FILE *before = std::exchange(*place, fopen(path.c_str(), "w"));
        EXPECT_DEATH(
            {
                fputs("last words", *place);
                INVARIANT(0 == 1);
            },
            "log_test.cpp: TestBody: invariant `0 == 1' broken");
        EXPECT_EQ(file_text(path), "last words");
        fclose(std::exchange(*place, before));
    }
}

TEST_F(logger, serves_hosts_in_c)
{
    c_host_speaks();
    EXPECT_EQ(app.take(), "(NRM)  -1, 1, 1536\n");
    EXPECT_EQ(access.take(), "1 1\n");
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
    g_log.loss.is_cut = true; // of the stream before
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), F_APPEND_OLD), LOG_OK);
    log_mirror(&g_log, fdopen(fileno(log_fp(&g_log)), "a")); // the same file: nothing comes twice
    LOG_STMT(NORM_level, "appended\n");
    EXPECT_EQ(file_text(path), "old\n(NRM)  appended\n"); // at once
    EXPECT_EQ(g_log.total_out, 4U + 16U);
    log_mirror(&g_log, log_fp(&g_log));
    log_close(&g_log);
    EXPECT_EQ(log_mirror_fp(&g_log), nullptr);
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), 0), LOG_OK);
    EXPECT_EQ(log_rotate(&g_log), LOG_OK); // without a ring: untold
    EXPECT_EQ(file_text(path), "");
    log_close(&g_log);
}

TEST_F(logger, tells_why_a_file_cannot_be_opened)
{
    CaptureStderr();
    EXPECT_EQ(log_open_ex(&g_log, ("/tmp" + std::string(124, '/') + "x").c_str(), 0), LOG_FAILED);
    EXPECT_EQ(log_popen(&g_log, std::string(129, ' ').c_str()), LOG_FAILED);
    EXPECT_EQ(log_open_ex(&g_log, ("/missing" + std::string(119, '/') + "x").c_str(), 0),
              LOG_FAILED);
    EXPECT_THAT(GetCapturedStderr(), EndsWith(" ERROR(2): No such file or directory\n"));
}

TEST_F(logger, traces_calls)
{
    char buf[4096];
    const int length = snprintf_btrace(buf, sizeof buf, "at %d:\n", 7);
    EXPECT_EQ(length, static_cast<int>(strlen(buf)));
    EXPECT_THAT(buf, StartsWith("at 7:\n#0: "));
    EXPECT_THAT(std::string(buf), AllOf(HasSubstr("\n#1: "), EndsWith("\n")));
    EXPECT_EQ(snprintf_btrace(buf, 6, "at %d:\n", 7), LOG_FAILED);
    EXPECT_EQ(btrace_to_buf(buf, 0), 0);
    EXPECT_EQ(buf[0], 'a'); // as it was
    EXPECT_EQ(snprintf_btrace(buf, 4, nullptr), 3);
    EXPECT_STREQ(buf, "#0:");
}

TEST_F(logger, names_levels)
{
    std::string names, levels;
    for (const int level : {MIN_level + 0, -4, -3, -2, -1, 0, 1, 2, 3, SECTION_level + 0})
        names += get_level_tag(level) + std::string(log_level_str(level)) + " " +
                 std::to_string(get_syslog_pri(level)) + " ";
    EXPECT_EQ(names, "( ? )?? 7 (PNC)panic 1 (ERR)error 3 (CRI)ctitical 2 (WRN)warning 4 "
                     "(NRM)normal 5 (INF)info 6 (DBG)debug 7 ( ? )?? 7 (SCT)section 7 ");
    for (const char *word : {"err", "error", "crit", "critical", "warn", "Warning", "norm",
                             "normal", "info", "debug", "dbg", "section", "sect", "panic"}) {
        int level = 9;
        const int rc = match_log_level(word, &level);
        levels += std::to_string(rc == LOG_OK ? level : rc * 10) + " ";
    }
    EXPECT_EQ(levels, "-3 -3 -2 -2 -1 -1 0 0 1 2 2 64 64 -10 ");
    EXPECT_EQ(read_level_env("ORVSCAN_TEST_LEVEL", 7), 7);
    for (const auto &[text, level] : {std::pair{"0", 0}, {"-3", -3}, {"2x", 2}, {"abc", 7}}) {
        setenv("ORVSCAN_TEST_LEVEL", text, 1);
        EXPECT_EQ(read_level_env("ORVSCAN_TEST_LEVEL", 7), level) << text;
    }
}

TEST_F(logger, rotates_files_only)
{
    CaptureStderr();
    strcpy(g_log.name, "former");
    ASSERT_EQ(log_open_ex(&g_log, nullptr, 0), LOG_OK);
    glog_enable_syslog("tests");
    log_close(&g_log);
    EXPECT_EQ(log_fp(&g_log), stderr);
    EXPECT_EQ(g_log.is_pipe, 0);
    EXPECT_EQ(g_log.syslg.option | g_log.syslg.facility, LOG_PID | LOG_CONS | LOG_LOCAL0);
    EXPECT_EQ(log_rotate(&g_log), LOG_OK);
    strcpy(g_log.name, "named");
    g_log.fp = stdout;
    EXPECT_EQ(log_rotate(&g_log), LOG_FAILED);
    log_popen(&g_log, "exit");
    EXPECT_EQ(log_rotate(&g_log), LOG_FAILED);
    EXPECT_EQ(GetCapturedStderr(), "log_rotate: nothing to rotate.\n"
                                   "log_rotate: stdout and stderr cannot be rotated.\n"
                                   "log_rotate: not supported for pipe-based streams.\n");
    log_close(&g_log);
    EXPECT_FALSE(g_log.syslg.enabled);
    EXPECT_DEATH(glog_init(nullptr), "glog_init: invariant `app_tag != nullptr' broken");
    g_logmod = {};
    EXPECT_DEATH(log_open_ex(&g_log, "x", 0), "log_open_ex: invariant `g_logmod.is_ready' broken");
    EXPECT_DEATH(log_popen(&g_log, "x"), "log_popen: invariant `g_logmod.is_ready' broken");
    log_set_group(&g_log, UINT64_MAX);
    EXPECT_DEATH(logbuf_prepare(&g_log, 0, "x"), "append_group: invariant `log->group.sym8");
}
