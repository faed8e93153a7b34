#include <libtarnlink/log.h>

#include "log/rotation.h"

#include <libtarnlink/invariant.h>
#include <libtarnlink/strops.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

log_ctx g_log;
log_ctx g_access_log;
log_ctx g_stats_log;
log_module_ctx g_logmod;
int g_mod_ll[LL_MAX_MODULES];
int g_sec_ll[LL_MAX_SECTIONS];
volatile sig_atomic_t g_sigctx;

namespace {

int g_saved_ll[LL_MAX_MODULES]; // module levels set aside by log_push_mlevels
bool mlevels_pushed;

constexpr size_t BUDGET = LOG_OUTBUF_SZ - 1; // characters of a line
constexpr int MAX_TRIES = 100;               // of a write that signals keep interrupting

// The line being made.
char g_outbuf[LOG_OUTBUF_SZ];
size_t g_outlen;                     // its length
volatile sig_atomic_t g_is_underway; // it is neither written nor given up yet
volatile sig_atomic_t g_is_written;  // the C library is writing it

// ---- Making a line, piece by piece

// Appends `text` and `blanks` blanks. False when they do not fit; the buffer is then unchanged.
bool append_piece(const char *text, size_t blanks)
{
    const size_t len = strlen(text);
    if (g_outlen + len + blanks > BUDGET)
        return false;
    memcpy(g_outbuf + g_outlen, text, len);
    memset(g_outbuf + g_outlen + len, ' ', blanks);
    g_outlen += len + blanks;
    g_outbuf[g_outlen] = '\0';
    return true;
}

bool append_prefix(const log_ctx *log)
{
    if (log->pfx[0] == '\0' || append_piece(log->pfx, 2))
        return true;
    fprintf(stderr, "%s: pfx buffer error (n=%d)\n", "logbuf_prepare",
            static_cast<int>(strlen(log->pfx)) + 1);
    return false;
}

// The clock of a time format, or -1 for a choice that does not exist.
clockid_t flags2clock(uint32_t flags)
{
    switch (flags & f_TIMER_ID) {
    case f_REALTIME_TIMER:
        return CLOCK_REALTIME;
    case f_MONOTONIC_TIMER:
        return CLOCK_MONOTONIC;
    default:
        return -1;
    }
}

bool append_time(const log_ctx *log)
{
    const clockid_t clock = flags2clock(log->time_format);
    if (clock == -1) {
        fprintf(stderr, "%s: unsupported timer value: %u\n", "logbuf_prepare",
                log->time_format & f_TIMER_ID);
        return false;
    }
    timespec now{};
    if (read_clock(clock, &now) != 0) {
        perror("clock_gettime");
        return false;
    }
    const size_t left = BUDGET - g_outlen;
    const int n = mk_timestr(&now, log->time_format, g_outbuf + g_outlen, left);
    if (n < 1 || static_cast<size_t>(n) >= left) {
        fprintf(stderr, "%s: time buffer error (n=%d)\n", "logbuf_prepare", n);
        return false;
    }
    g_outlen += static_cast<size_t>(n);
    return append_piece("", 1);
}

bool append_pid(const log_ctx *log)
{
    if (log->pid < 1)
        return true;
    char text[24];
    const char *end = std::to_chars(text, text + sizeof text - 1, log->pid).ptr;
    text[end - text] = '\0';
    if (append_piece(text, 2))
        return true;
    fprintf(stderr, "%s: pid buffer error (n=%d)", "logbuf_prepare",
            static_cast<int>(end - text) + 1);
    return false;
}

bool append_level(int level)
{
    if (level <= MIN_level || append_piece(get_level_tag(level), 2))
        return true;
    fprintf(stderr, "%s: level buffer error (n=%d)", "logbuf_prepare",
            static_cast<int>(strlen(get_level_tag(level))) + 1);
    return false;
}

bool append_group(const log_ctx *log)
{
    if (log->group.num64 == 0)
        return true;
    INVARIANT(log->group.sym8[7] == '\0');
    if (append_piece(log->group.sym8, 2))
        return true;
    fprintf(stderr, "%s: group buffer error (n=%d)", "logbuf_prepare",
            static_cast<int>(strlen(log->group.sym8)) + 1);
    return false;
}

// Formats the message into what is left of the line; result as for logbuf_prepare.
__attribute__((format(printf, 1, 0))) int append_message(const char *fmt, va_list args)
{
    const size_t left = BUDGET - g_outlen + 1;
    const int n = vsnprintf(g_outbuf + g_outlen, left, fmt, args);
    if (n > 0)
        g_outlen += std::min(static_cast<size_t>(n), left - 1);
    if (n < 1 || static_cast<size_t>(n) >= left) {
        perror("fprintf/vfprintf");
        return LOG_FAILED;
    }
    return n;
}

void empty_buffer()
{
    g_outlen = 0;
    g_outbuf[0] = '\0';
}

// A signal handler sees these in the order they are done.
void begin_line()
{
    g_is_underway = 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

void finish_line()
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    g_is_underway = 0;
}

// Makes a line; result as for logbuf_prepare.
__attribute__((format(printf, 3, 0))) int make_line(const log_ctx *log, int level, const char *fmt,
                                                    va_list args)
{
    begin_line();
    empty_buffer();
    if (!append_prefix(log))
        return LOG_FAILED;
    if ((log->time_format & f_NO_TIME) == 0 && !(append_time(log) && append_pid(log)))
        return LOG_FAILED;
    if (!append_level(level) || !append_group(log))
        return LOG_FAILED;
    return append_message(fmt, args);
}

// ---- Writing it

// Goes on behind the first `done` bytes of a line on an unbuffered stream, or makes a buffered one
// take the first byte. Returns how many are written in the end: a signal is no reason to stop, a
// stream that takes nothing more is.
size_t write_rest(FILE *fp, const char *text, size_t len, size_t done)
{
    for (int i = 0; i < MAX_TRIES && done < len; ++i) {
        clearerr(fp); // or it would be taken for an error of the lines to come
        errno = 0;
        size_t n = fwrite(text + done, 1, len - done, fp);
        if (n == len - done && ferror(fp) != 0)
            n = 0; // a buffer has taken it, and was dropped
        done += n;
        if (n == 0 && errno != EINTR)
            break;
    }
    clearerr(fp);
    return done;
}

// Whether a buffered stream takes a line whole or not at all: a pipe does.
bool is_line_pipe(FILE *fp)
{
    struct stat st {};
    return __flbf(fp) != 0 && fstat(fileno(fp), &st) == 0 && S_ISFIFO(st.st_mode);
}

// What is left to do when a stream has not taken `text` without complaint.
__attribute__((cold)) void recover(FILE *fp, line_loss *loss, const char *text, size_t len,
                                   size_t done)
{
    const bool is_buffered = __fbufsize(fp) > 1 || __flbf(fp) != 0;
    if (is_buffered) { // the C library has dropped what it could not write
        clearerr(fp);
        ++loss->count;
        loss->is_cut = !is_line_pipe(fp);
        return;
    }
    done = write_rest(fp, text, len, done);
    if (done == len)
        return;
    ++loss->count;
    loss->is_cut = done > 0;
}

// Ends the piece of a lost line that the stream ends with. False when that fails as well.
__attribute__((cold)) bool end_cut_line(FILE *fp, line_loss *loss)
{
    loss->is_cut = write_rest(fp, "\n", 1, 0) == 0;
    return !loss->is_cut;
}

// Writes the line of a signal handler that has interrupted the writing of another one: past the C
// library, which is in the middle of something.
__attribute__((cold)) void put_line_directly(FILE *fp, line_loss *loss)
{
    const size_t len = strlen(g_outbuf);
    size_t done = 0;
    for (int i = 0; i < MAX_TRIES && done < len; ++i) {
        const ssize_t n = write(fileno(fp), g_outbuf + done, len - done);
        if (n < 0 && errno != EINTR)
            break;
        done += static_cast<size_t>(std::max<ssize_t>(n, 0));
    }
    if (done == len)
        return;
    ++loss->count;
    loss->is_cut = done > 0;
}

// Writes the buffer, up to its terminating zero.
void put_line(FILE *fp, line_loss *loss)
{
    if (g_is_written != 0) {
        put_line_directly(fp, loss);
        return;
    }
    g_is_written = 1;
    if (!loss->is_cut || end_cut_line(fp, loss)) {
        const size_t len = strlen(g_outbuf);
        const size_t done = fwrite(g_outbuf, 1, len, fp);
        if (done != len || ferror_unlocked(fp) != 0)
            recover(fp, loss, g_outbuf, len, done);
    } else {
        ++loss->count;
    }
    g_is_written = 0;
}

// ---- Statements

__attribute__((format(printf, 3, 0))) void state(const loglevel_ctx *llctx, int level,
                                                 const char *fmt, va_list args)
{
    if (lard_enabled(&g_log)) {
        va_list copy;
        va_copy(copy, args);
        make_line(&g_log, level, fmt, copy);
        va_end(copy);
        log_lard(&g_log, level);
    } else {
        empty_buffer();
    }
    if (log_emits(llctx, level)) {
        if (logbuf_empty())
            make_line(&g_log, level, fmt, args);
        log_flush(&g_log, level);
    }
    logbuf_reset(); // a flush at the end of the run must not repeat the line
}

__attribute__((format(printf, 1, 0))) void state_access(const char *fmt, va_list args)
{
    if (make_line(&g_access_log, MIN_level, fmt, args) > 0)
        log_flush(&g_access_log, MIN_level);
    logbuf_reset();
}

// The line that a signal handler's statement has interrupted, set aside for so long.
struct outer_line {
    outer_line() : len(g_outlen) { memcpy(text, g_outbuf, sizeof text); }
    ~outer_line()
    {
        begin_line(); // before it is back: the handler may be interrupted as well
        memcpy(g_outbuf, text, sizeof text);
        g_outlen = len;
    }
    outer_line(const outer_line &) = delete;
    outer_line &operator=(const outer_line &) = delete;

    size_t len;
    char text[LOG_OUTBUF_SZ];
};

__attribute__((cold, noinline, format(printf, 3, 0))) void
state_inside_outer(const loglevel_ctx *llctx, int level, const char *fmt, va_list args)
{
    const outer_line kept;
    state(llctx, level, fmt, args);
}

__attribute__((cold, noinline, format(printf, 1, 0))) void
state_access_inside_outer(const char *fmt, va_list args)
{
    const outer_line kept;
    state_access(fmt, args);
}

// ---- Opening and closing

bool name_fits(const char *name)
{
    if (strlen(name) <= LOG_PATHNAME_MAX)
        return true;
    fprintf(stderr, "Log pathname/command is too long, %ld bytes allowed\n",
            static_cast<long>(LOG_PATHNAME_MAX));
    return false;
}

int report_open_failure(const char *function, const char *call, const char *path)
{
    const int error = errno;
    fprintf(stderr, "%s: uid/gig=%ld/%ld %s(%s) ERROR(%d): %s\n", function,
            static_cast<long>(geteuid()), static_cast<long>(getegid()), call, path, error,
            strerror(error));
    return LOG_FAILED;
}

void adopt_log_file(log_ctx *log, const char *path, FILE *fp)
{
    setvbuf(fp, nullptr, _IONBF, 0);
    log->fp = fp;
    log->is_pipe = 0;
    log->is_lost = 0;
    log->total_out = 0;
    struct stat st {};
    if (fstat(fileno(fp), &st) == 0)
        log->total_out = static_cast<size_t>(st.st_size);
    else
        fprintf(stderr, "%s: fstat(%s) ERROR(%d): %s\n", "log_open_ex", path, errno,
                strerror(errno));
}

void close_stream(log_ctx *log)
{
    const bool pipe = log->is_pipe != 0;
    const stream_users users = users_of(log);
    errno = 0;
    const int rc = pipe ? pclose(log->fp) : fclose(log->fp);
    const bool failed = pipe ? rc == -1 && errno != ECHILD : rc != 0;
    if (failed)
        fprintf(stderr, "%s: %s error(%d) for the application log: %s\n", "log_close",
                pipe ? "pclose" : "fclose", errno, strerror(errno));
    for (FILE **user : users)
        if (user != nullptr)
            *user = nullptr;
}

} // namespace

// ---- The line buffer

void logbuf_reset()
{
    empty_buffer();
    finish_line();
}

bool logbuf_empty() { return g_outlen == 0; }

int logbuf_prepare(log_ctx *log, int level, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int n = make_line(log, level, fmt, args);
    va_end(args);
    return n;
}

void log_lard(log_ctx *log, int level)
{
    if (log->lh == nullptr || logbuf_empty())
        return;
    lard_puts(log->lh, g_outbuf);
    if (level < 0)
        lard_set_temp(log->lh, -level);
}

void log_flush(log_ctx *log, int level)
{
    if (logbuf_empty())
        return;
    if (log->fp == nullptr)
        reopen_if_lost(log);
    if (log->fp != nullptr) {
        put_line(log->fp, &log->loss);
        log->total_out += g_outlen;
    } else if (log->is_lost != 0) {
        ++log->loss.count;
    }
    if (log->mirror_fp != nullptr &&
        (log->fp == nullptr || fileno(log->mirror_fp) != fileno(log->fp)))
        put_line(log->mirror_fp, &log->mirror_loss);
    if (g_sigctx == 0 && level < 0 && log->syslg.enabled)
        syslog(get_syslog_pri(level) | log->syslg.facility, "%s", g_outbuf);
    finish_line();
    if (g_sigctx == 0)
        rotate_if_due(log);
}

size_t log_lost(const log_ctx *log) { return log->loss.count; }

void log_statement(const loglevel_ctx *llctx, int level, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    if (g_is_underway == 0)
        state(llctx, level, fmt, args);
    else
        state_inside_outer(llctx, level, fmt, args);
    va_end(args);
}

void log_access(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    if (g_is_underway == 0)
        state_access(fmt, args);
    else
        state_access_inside_outer(fmt, args);
    va_end(args);
}

// ---- Setting up a log

bool is_standard_stream(const FILE *fp) { return fp == stdout || fp == stderr; }

void log_default(log_ctx *log, FILE *fp)
{
    log->fp = fp;
    log->loss.is_cut = false;
    if (log == &g_log && log->llst.sec_ll_set == 0)
        log_set_sections(log, SECTION_level);
}

void log_set_modules(log_ctx *log, int level)
{
    std::fill_n(g_mod_ll, LL_MAX_MODULES, level);
    log->llst.mod_ll_set = 1;
}

void log_set_sections(log_ctx *log, int level)
{
    std::fill_n(g_sec_ll, LL_MAX_SECTIONS, level);
    log->llst.sec_ll_set = 1;
}

void log_set_pid(log_ctx *log, pid_t pid) { log->pid = pid; }

pid_t log_get_pid(const log_ctx *log) { return log->pid; }

void log_set_group(log_ctx *log, uint64_t group_id) { log->group.num64 = group_id; }

uint64_t log_get_group(const log_ctx *log) { return log->group.num64; }

void log_set_pfx(log_ctx *log, const char *pfx)
{
    copy_text(log->pfx, sizeof log->pfx, pfx != nullptr ? pfx : "");
}

void log_timefmt(log_ctx *log, uint32_t flags) { log->time_format = flags; }

void log_mirror(log_ctx *log, FILE *fp)
{
    log->mirror_fp = fp;
    log->mirror_loss.is_cut = false;
    if (fp != nullptr)
        setvbuf(fp, nullptr, _IOLBF, 0);
}

FILE *log_fp(const log_ctx *log) { return log->fp; }

FILE *log_mirror_fp(const log_ctx *log) { return log->mirror_fp; }

lard_t log_set_lard(log_ctx *log, lard_t lh)
{
    const lard_t previous = log->lh;
    log->lh = lh;
    return previous;
}

void log_push_mlevels()
{
    if (mlevels_pushed)
        return;
    std::copy_n(g_mod_ll, LL_MAX_MODULES, g_saved_ll);
    mlevels_pushed = true;
}

void log_pop_mlevels()
{
    if (!mlevels_pushed)
        return;
    std::copy_n(g_saved_ll, LL_MAX_MODULES, g_mod_ll);
    mlevels_pushed = false;
}

void config_syslog(log_ctx *log, const char *app, int option, int facility)
{
    log->syslg.option = option;
    log->syslg.facility = facility;
    openlog(app, option, facility);
    log->syslg.enabled = true;
}

void disable_syslog(log_ctx *log)
{
    closelog();
    log->syslg = {};
}

void glog_enable_syslog(const char *app)
{
    config_syslog(&g_log, app, LOG_PID | LOG_CONS, LOG_LOCAL0);
}

void glog_disable_syslog() { disable_syslog(&g_log); }

void glog_init(const char *app_tag)
{
    INVARIANT(app_tag != nullptr);
    copy_text(g_logmod.app_tag, sizeof g_logmod.app_tag, app_tag);
    g_logmod.is_ready = true;
}

// ---- Opening and closing

int open_log_file(log_ctx *log, const char *path)
{
    FILE *fp = fopen(path, "a+");
    if (fp == nullptr)
        return report_open_failure("log_open_ex", "fopen", path);
    adopt_log_file(log, path, fp);
    return LOG_OK;
}

void reopen_if_lost(log_ctx *log)
{
    if (log->is_lost == 0 || g_sigctx != 0)
        return;
    FILE *fp = fopen(log->name, "a+");
    if (fp != nullptr)
        adopt_log_file(log, log->name, fp);
}

stream_users users_of(log_ctx *log)
{
    stream_users users{};
    if (log->fp == nullptr)
        return users;
    size_t n = 0;
    for (log_ctx *other : {log, &g_log, &g_access_log, &g_stats_log})
        for (FILE **place : {&other->fp, &other->mirror_fp})
            if (*place == log->fp)
                users[n++] = place;
    return users;
}

int log_open_ex(log_ctx *log, const char *path, int flags)
{
    INVARIANT(g_logmod.is_ready);
    if (path == nullptr) {
        log->fp = stderr;
        log->name[0] = '\0';
        log->is_pipe = 0;
        log->loss.is_cut = false;
        log->total_out = 0;
        return LOG_OK;
    }
    if (!name_fits(path))
        return LOG_FAILED;
    if ((flags & F_APPEND_OLD) == 0)
        move_if_present(path);
    if (open_log_file(log, path) != LOG_OK)
        return LOG_FAILED;
    log->loss.is_cut = false;
    copy_text(log->name, sizeof log->name, path);
    return LOG_OK;
}

int log_popen(log_ctx *log, const char *cmd)
{
    INVARIANT(g_logmod.is_ready);
    if (!name_fits(cmd))
        return LOG_FAILED;
    FILE *fp = popen(cmd, "w");
    if (fp == nullptr)
        return report_open_failure(__func__, "popen", cmd);
    setvbuf(fp, nullptr, _IOLBF, 0);
    log->fp = fp;
    log->is_pipe = 1;
    log->loss.is_cut = false;
    log->total_out = 0;
    copy_text(log->name, sizeof log->name, cmd);
    return LOG_OK;
}

void log_close(log_ctx *log)
{
    if (is_standard_stream(log->fp))
        return;
    if (log->fp != nullptr)
        close_stream(log);
    log->is_lost = 0;
    if (log->syslg.enabled)
        disable_syslog(log);
    if (log->lh != nullptr) {
        lard_destroy(log->lh);
        log->lh = nullptr;
    }
}
