// The logger: one line at a time, to one of three logs.
//
// A line is made in one process-wide buffer of 2048 bytes (2047 characters at most): optional
// prefix, time stamp, process id, level tag, group tag, message. Prefix, process id, level tag and
// group tag are each followed by two blanks, the time stamp by one. It goes to the log's stream
// and, when asked for, to a mirror stream, to syslog and to a shared-memory log. Formats carry
// their own line feed.
//
// Failures of the logger itself are told on standard error, never through the logger.
//
// A line is written whole or counted as lost (log_lost), and never stops those that follow. On an
// unbuffered stream (log files and standard error are) a write that a signal cuts short, for want
// of SA_RESTART, goes on where it was; on a buffered one (pipes, mirrors) the line is lost then, as
// it is when the disk is full or nobody reads the pipe any more. What was written of a lost line
// gets its line feed before the next one; as nobody knows how much a buffered stream has written,
// unless it is a pipe, an empty line may stand there. What a stream that the host buffers fully
// drops at once counts as one line. A host that logs to a command's input must ignore SIGPIPE.
//
// It is meant for one thread. Inside a signal handler (g_sigctx set) syslog and rotation are left
// out; statements may be made there, nothing else. A line that is under way stays whole; the
// handler's own is refused as far as its time stamp is concerned (TIME_BUSY) when it has
// interrupted the making of another one. Statements use stdio and, once a second, the calendar of
// the C library: where the host calls these itself, it blocks the signals whose handlers log.
#pragma once

#include <libtarnlink/lard.h>
#include <libtarnlink/timeop.h>

#include <signal.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <time.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// Levels; a smaller number is more severe.
enum log_level {
    MIN_level = -127, // no level tag, no filtering
    PANIC_level = -4,
    ERR_level = -3,
    CRIT_level = -2,
    WARN_level = -1,
    NORM_level = 0,
    INFO_level = 1,
    DEBUG_level = 2,
    SECTION_level = 64,
};

enum {
    LL_MAX_MODULES = 128,
    LL_MAX_SECTIONS = 128,
    LL_STACK_DEPTH = 8,
    LOG_PATHNAME_MAX = 128,
    LOG_GRP_MAX = 32,
    LOG_ERRMSG_MAX = 384,
    LOG_PFX_MAX = 64,
    LOG_OUTBUF_SZ = 2048,
    MAX_CYCLIC_ROTATIONS = 128,
    F_APPEND_OLD = 1, // log_open_ex: append to an old file instead of moving it aside
};

// What operations that can fail return where nothing else is said.
enum log_status {
    LOG_OK = 0,
    LOG_FAILED = -1,       // after a message on standard error
    LOG_NAME_TOO_LONG = 7, // move_if_present: the new name would be too long; without a message
};

// A tag of up to seven characters that is also a number.
typedef union n64_tag {
    char sym8[8];
    uint64_t num64;
} n64_tag;

// Rotation limits and the ring of rotated files.
typedef struct rotation_ctx {
    time_t tm[MAX_CYCLIC_ROTATIONS]; // time that names the file rotated into a slot; 0: empty
    ssize_t next_idx;                // slot to fill next
    size_t max_idx;                  // slots in use; 0: rotated files are not kept count of
    size_t max_total;                // rotate at this many bytes; 0: never
    time_t max_log_tm;               // rotate at the first write after this time; <= 0: never
} rotation_ctx;

typedef struct ll_status {
    unsigned mod_ll_set : 1; // module levels were set explicitly
    unsigned sec_ll_set : 1; // section levels were set explicitly
} ll_status;

typedef struct syslog_cfg {
    bool enabled;
    int option;   // openlog options
    int facility; // facility code
} syslog_cfg;

// Lines that a stream did not take whole.
typedef struct line_loss {
    size_t count;
    bool is_cut; // the stream ends with a piece of a lost line
} line_loss;

// One log.
typedef struct log_ctx {
    char name[LOG_PATHNAME_MAX + 1]; // path or command; empty for a standard stream
    unsigned is_pipe : 1;            // the stream is a command's input
    unsigned is_lost : 1;            // a rotation could not open the file anew: no stream for now
    uint32_t time_format;            // time_flags
    FILE *fp;                        // where lines go
    FILE *mirror_fp;                 // second stream for every line, or null
    line_loss loss;                  // of `fp`
    line_loss mirror_loss;           // of `mirror_fp`
    size_t total_out;                // bytes written to `fp` since it was opened
    ll_status llst;
    rotation_ctx rota;
    pid_t pid;     // process id to print; 0 or less: none
    n64_tag group; // group tag; 0: none
    lard_t lh;     // attached shared-memory log, or null
    syslog_cfg syslg;
    char pfx[LOG_PFX_MAX]; // line prefix; empty: none
} log_ctx;

// A source module's place in the level tables. Every module starts outside any section: in C++ by
// itself, in C with LOGLEVEL_CTX_INIT.
typedef struct loglevel_ctx {
#ifdef __cplusplus
    int mod = 0;     // module number
    int sec = -1;    // current section, -1: none
    int sec_sp = -1; // section stack pointer, -1: empty
    int sec_stack[LL_STACK_DEPTH]{};
#else
    int mod;
    int sec;
    int sec_sp;
    int sec_stack[LL_STACK_DEPTH];
#endif
} loglevel_ctx;

#ifndef __cplusplus
#define LOGLEVEL_CTX_INIT                                                                          \
    {                                                                                              \
        .mod = 0, .sec = -1, .sec_sp = -1                                                          \
    }
#endif

typedef struct log_module_ctx {
    bool is_ready;
    char app_tag[128];
} log_module_ctx;

extern log_ctx g_log;        // application log
extern log_ctx g_access_log; // alerts and statistics for machines
extern log_ctx g_stats_log;  // statistics log, for hosts
extern log_module_ctx g_logmod;
extern int g_mod_ll[LL_MAX_MODULES];   // level up to which a module logs
extern int g_sec_ll[LL_MAX_SECTIONS];  // level of a section
extern volatile sig_atomic_t g_sigctx; // non-zero inside a signal handler

// ---- Statements

// Whether a statement of this level is written: the module's level is at least the statement's; or,
// inside a section, at least the section's.
static inline bool log_emits(const loglevel_ctx *llctx, int level)
{
    return g_mod_ll[llctx->mod] >= (llctx->sec < 0 ? level : g_sec_ll[llctx->sec]);
}

// True when a shared-memory log is attached, which receives every statement whatever the levels.
static inline bool lard_enabled(const log_ctx *log) { return log->lh != NULL; }

// The application-log statement. The calling file has its own `g_llctx`. A statement that is
// filtered out evaluates none of its arguments.
#define LOG_STMT(level, ...)                                                                       \
    do {                                                                                           \
        if (__builtin_expect(log_emits(&g_llctx, level) || lard_enabled(&g_log), 0))               \
            log_statement(&g_llctx, level, __VA_ARGS__);                                           \
    } while (0)

// What LOG_STMT calls; not meant to be called directly.
void log_statement(const loglevel_ctx *llctx, int level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// The access-log statement: always written, without level tag; a line that does not fit is dropped.
void log_access(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// ---- The line buffer, which statements are made of

void logbuf_reset(void);
bool logbuf_empty(void);

// Makes a line in the buffer. Returns the length of its message part, or LOG_FAILED (message empty
// or cut, or a piece that could not be made; the line then ends where it failed).
int logbuf_prepare(log_ctx *log, int level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Copies the buffer to the attached shared-memory log and raises its temperature.
void log_lard(log_ctx *log, int level);

// Writes the buffer, unless it is empty, to the stream, the mirror and syslog, then rotates the log
// if its limits say so.
void log_flush(log_ctx *log, int level);

// How many lines the log's stream has not taken whole.
size_t log_lost(const log_ctx *log);

// ---- Setting up a log

// Makes `fp`, which stays the caller's, the log's stream. For g_log it also sets all section levels
// to SECTION_level, unless they were set before.
void log_default(log_ctx *log, FILE *fp);
void log_set_modules(log_ctx *log, int level);  // all module levels
void log_set_sections(log_ctx *log, int level); // all section levels
void log_set_pid(log_ctx *log, pid_t pid);
pid_t log_get_pid(const log_ctx *log);
void log_set_group(log_ctx *log, uint64_t group_id); // the eight bytes of an n64_tag
uint64_t log_get_group(const log_ctx *log);
void log_set_pfx(log_ctx *log, const char *pfx); // at most 63 characters; null: none
void log_timefmt(log_ctx *log, uint32_t flags);
void log_mirror(log_ctx *log, FILE *fp); // stays the caller's; made line-buffered; null: none
FILE *log_fp(const log_ctx *log);
FILE *log_mirror_fp(const log_ctx *log);
lard_t log_set_lard(log_ctx *log, lard_t lh); // returns the handle attached before

// One-deep save of all module levels.
void log_push_mlevels(void);
void log_pop_mlevels(void);

// Copies every line with a negative level to syslog, under this identity, openlog options and
// facility code. `app` must stay valid.
void config_syslog(log_ctx *log, const char *app, int option, int facility);
void disable_syslog(log_ctx *log);
void glog_enable_syslog(const char *app); // application log, pid and console, facility local0
void glog_disable_syslog(void);

// Names the application in messages about rotation. Needed before a log is opened.
void glog_init(const char *app_tag);

// Opens a log on a file (append mode, unbuffered; null: standard error) or on a command's input
// (line-buffered). Without F_APPEND_OLD an old file is moved aside first. Returns LOG_OK or
// LOG_FAILED. A stream opened before is not closed.
int log_open_ex(log_ctx *log, const char *path, int flags);
int log_popen(log_ctx *log, const char *cmd);

// Closes a log's file or pipe, its syslog copy and its shared-memory log. A log on a standard
// stream stays as it is.
void log_close(log_ctx *log);

// ---- Rotation: a file log is renamed to NAME.TIME and opened anew

// Rotates by size (bytes, 0: never), keeps `maxfiles` rotated files (1 to 127, anything else: 16)
// and, when `max_time` is 1 or more, rotates at the end of the local day that contains it.
void log_set_rota(log_ctx *log, size_t maxsize, size_t maxfiles, time_t max_time);
void log_set_eod(log_ctx *log, time_t t);
size_t log_rota_maxfiles(const log_ctx *log);
size_t log_rota_maxsize(const log_ctx *log);
time_t log_rota_eod(const log_ctx *log);

// Rotates now. Returns LOG_OK, also when the file could not be renamed and the log goes on in it,
// or LOG_FAILED when the log cannot be rotated or opened anew.
int log_rotate(log_ctx *log);

// Enters a rotated file into the ring of kept files and deletes the one whose slot it takes.
void handle_rotation(log_ctx *log, time_t now, const char *prev_log);

// Renames a non-empty regular file to PATH.MTIME. Returns LOG_OK (also when there is nothing to
// move), LOG_FAILED or LOG_NAME_TOO_LONG.
int move_if_present(const char *path);

// ---- Levels and names

const char *get_level_tag(int level);
const char *log_level_str(int level);
int match_log_level(const char *str, int *level); // LOG_OK on a match, else LOG_FAILED, untold
int get_syslog_pri(int level);                    // syslog(3) priority

// The environment variable as a number; `default_level` when it is unset or no number.
int read_level_env(const char *varname, int default_level);

// ---- Back-traces

// Fills `buf` with up to 16 lines "#N: FRAME". Returns the length, or LOG_FAILED.
int btrace_to_buf(char *buf, size_t len);

// A formatted message (may be null) with a back-trace behind it. Returns the length of it all, or
// LOG_FAILED, also when the message does not fit.
int snprintf_btrace(char *buf, size_t len, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
