// Rotation: a file log is renamed to NAME.TIME and opened anew; a ring of rotated files is kept.

#include "log/rotation.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

loglevel_ctx g_llctx;

constexpr size_t ROTATED_NAME_MAX = 159; // characters of a rotated file's name
constexpr size_t DEFAULT_MAXFILES = 16;  // kept when the host asks for none or too many
constexpr size_t OLD_NAME_MAX = 127;     // characters of the name an old file is moved to

const log_ctx *g_rotating; // the log being rotated

// Marks a log as being rotated. Rotation writes statements, to the same log as a rule: they must
// not rotate it again, whatever its limits.
struct rotating_mark {
    explicit rotating_mark(const log_ctx *log) : outer(g_rotating) { g_rotating = log; }
    ~rotating_mark() { g_rotating = outer; }
    rotating_mark(const rotating_mark &) = delete;
    rotating_mark &operator=(const rotating_mark &) = delete;

    const log_ctx *outer;
};

// The name of a rotated file; false, after a message, when it would be too long.
bool make_rotated_name(const char *function, const log_ctx *log, time_t tm,
                       char (&out)[ROTATED_NAME_MAX + 1])
{
    const int n = snprintf(out, sizeof out, "%s.%lu", log->name, static_cast<unsigned long>(tm));
    if (n >= 0 && static_cast<size_t>(n) <= ROTATED_NAME_MAX)
        return true;
    fprintf(stderr, "%s: log log->name is too long (%d bytes), max=%lu\n", function, n,
            static_cast<unsigned long>(ROTATED_NAME_MAX));
    return false;
}

// Whether there is a file to rotate: 1, or log_rotate's answer after a message.
int can_rotate(const log_ctx *log)
{
    if (log->name[0] == '\0') {
        fprintf(stderr, "%s: nothing to rotate.\n", "log_rotate");
        return LOG_OK;
    }
    if (is_standard_stream(log->fp)) {
        fprintf(stderr, "%s: stdout and stderr cannot be rotated.\n", "log_rotate");
        return LOG_FAILED;
    }
    if (log->is_pipe != 0 || log->name[0] == '|') {
        fprintf(stderr, "%s: not supported for pipe-based streams.\n", "log_rotate");
        return LOG_FAILED;
    }
    return 1;
}

// Closes, renames and reopens the file. Returns a log_status; `problem` is empty unless the file
// could not be renamed.
int replace_file(log_ctx *log, const char *new_name, char (&problem)[LOG_ERRMSG_MAX])
{
    problem[0] = '\0';
    log->is_lost = 1;
    // A failed close frees the stream as well. A log that is lost already has nothing to close.
    FILE *fp = std::exchange(log->fp, nullptr);
    if (fp != nullptr && fclose(fp) != 0) {
        fprintf(stderr, "%s: failed to close [%s], ERROR(%d): %s\n", "log_rotate", log->name, errno,
                strerror(errno));
        return LOG_FAILED;
    }
    if (rename(log->name, new_name) != 0) {
        snprintf(problem, sizeof problem, "%s: failed to rename [%s] to [%s], ERROR(%d): %s",
                 "log_rotate", log->name, new_name, errno, strerror(errno));
        fprintf(stderr, "%s - rotation is to be stopped\n", problem);
    } else {
        log->loss.is_cut = false;
    }
    return open_log_file(log, log->name);
}

void drop_oldest(const log_ctx *log, const char *oldest, time_t now)
{
    if (unlink(oldest) != 0)
        LOG_STMT(ERR_level, "%s: unlink(%s) ERROR(%d) : %s\n", "handle_rotation", oldest, errno,
                 strerror(errno));
    else
        LOG_STMT(DEBUG_level, "%s: replaced %s with %s.%lu\n", "handle_rotation", oldest, log->name,
                 static_cast<unsigned long>(now));
}

} // namespace

// ---- Limits

void log_set_rota(log_ctx *log, size_t maxsize, size_t maxfiles, time_t max_time)
{
    log->rota.max_total = maxsize;
    log->rota.max_idx =
        maxfiles >= 1 && maxfiles < MAX_CYCLIC_ROTATIONS ? maxfiles : DEFAULT_MAXFILES;
    log->rota.max_log_tm = max_time < 1 ? 0 : get_endofday_utime(max_time);
}

void log_set_eod(log_ctx *log, time_t t) { log->rota.max_log_tm = t; }

size_t log_rota_maxfiles(const log_ctx *log) { return log->rota.max_idx; }

size_t log_rota_maxsize(const log_ctx *log) { return log->rota.max_total; }

time_t log_rota_eod(const log_ctx *log) { return log->rota.max_log_tm; }

void rotate_if_due(log_ctx *log)
{
    if (log->fp == nullptr || is_standard_stream(log->fp) || log == g_rotating)
        return;
    rotation_ctx &rota = log->rota;
    bool due = rota.max_total != 0 && log->total_out >= rota.max_total;
    if (rota.max_log_tm > 0) {
        const time_t now = now_seconds();
        if (now > rota.max_log_tm) {
            const rotating_mark mark(log); // the calendar may have something to say
            rota.max_log_tm = get_endofday_utime(now);
            due = true;
        }
    }
    if (due)
        log_rotate(log);
}

// ---- Rotating

int log_rotate(log_ctx *log)
{
    const time_t now = now_seconds();
    const int possible = can_rotate(log);
    if (possible != 1)
        return possible;
    char new_name[ROTATED_NAME_MAX + 1];
    if (!make_rotated_name(__func__, log, now, new_name))
        return LOG_FAILED;

    const rotating_mark mark(log);
    char problem[LOG_ERRMSG_MAX];
    const stream_users users = users_of(log);
    const int rc = replace_file(log, new_name, problem);
    for (FILE **user : users)
        if (user != nullptr)
            *user = log->fp;
    if (rc != LOG_OK)
        return rc;
    if (problem[0] != '\0') {
        log->total_out = 0; // the next attempt comes after another max_total bytes
        LOG_STMT(ERR_level, "%s: %s - rotation cancelled this time\n", __func__, problem);
    } else if (log->rota.max_idx != 0) {
        handle_rotation(log, now, new_name);
    }
    return LOG_OK;
}

// ---- The ring of rotated files

void handle_rotation(log_ctx *log, time_t now, const char *prev_log)
{
    rotation_ctx &rota = log->rota;
    const ssize_t idx = rota.next_idx;
    LOG_STMT(NORM_level, "[%s]: previous log rotated to [%s] tm=%ld, idx=%ld\n", g_logmod.app_tag,
             prev_log, static_cast<long>(now), static_cast<long>(idx));
    if (rota.tm[idx] != 0) {
        char oldest[ROTATED_NAME_MAX + 1];
        if (!make_rotated_name(__func__, log, rota.tm[idx], oldest))
            return;
        // Within one second the rename has replaced the older file: the name is the new one's now.
        if (strcmp(oldest, prev_log) != 0)
            drop_oldest(log, oldest, now);
    }
    rota.tm[idx] = now;
    // The number of slots may have been lowered below the index.
    const size_t slots = std::min<size_t>(rota.max_idx, MAX_CYCLIC_ROTATIONS);
    rota.next_idx = static_cast<size_t>(idx) + 1 >= slots ? 0 : idx + 1;
    errno = 0;
}

// ---- Old files

int move_if_present(const char *path)
{
    struct stat st {};
    if (stat(path, &st) != 0) {
        if (errno == ENOENT)
            return LOG_OK;
        fprintf(stderr, "stat(%s) ERROR(%d): %s\n", path, errno, strerror(errno));
        return LOG_FAILED;
    }
    if (!S_ISREG(st.st_mode) || st.st_size == 0)
        return LOG_OK;
    char old_name[OLD_NAME_MAX + 1];
    const int n = snprintf(old_name, sizeof old_name, "%s.%lu", path,
                           static_cast<unsigned long>(st.st_mtime));
    if (n < 0 || static_cast<size_t>(n) > OLD_NAME_MAX)
        return LOG_NAME_TOO_LONG;
    const int rc = rename(path, old_name);
    if (rc != 0)
        fprintf(stderr, "Cannot rename(%s, %s): ERROR(%d): %s\n", path, old_name, errno,
                strerror(errno));
    return rc;
}
