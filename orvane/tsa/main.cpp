// The driver: reads a capture packet by packet through the engine and reports.

#include "common/meta.h"
#include "tsa/capture.h"
#include "tsa/options.h"

#include <libtarnlink/invariant.h>
#include <libtarnlink/log.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <unistd.h>

namespace {

loglevel_ctx g_llctx;

volatile sig_atomic_t g_quit; // set by SIGINT and SIGTERM

constexpr uint64_t FSCN_TAG = 0x4E435346; // the bytes "FSCN"

struct free_context {
    void operator()(tsan_t th) const { tsan_free(th); }
};
typedef std::unique_ptr<tsan_ctx, free_context> context;

// Asks the loop to stop; writes "SIG(n)" on a line of its own, without stdio.
void handle_quit(int signo)
{
    char text[] = "\nSIG(00)\n";
    char *digits = text + sizeof "\nSIG(" - 1;
    size_t len = sizeof text - 1;
    if (signo >= 10) {
        digits[0] = static_cast<char>('0' + signo / 10);
        digits[1] = static_cast<char>('0' + signo % 10);
    } else {
        digits[0] = static_cast<char>('0' + signo);
        memmove(digits + 1, digits + 2, sizeof ")\n");
        --len;
    }
    const int saved = errno;
    // Nothing can be done about a failed write here.
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text, len);
    errno = saved;
    g_quit = 1;
}

// Standard output and error that are closed lead nowhere, so that no file opened later gets their
// numbers and the logs with them.
void keep_outputs()
{
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) != -1)
            continue;
        const int null = open("/dev/null", O_WRONLY);
        if (null != fd) {
            dup2(null, fd);
            close(null);
        }
    }
}

void setup_logs()
{
    log_default(&g_log, stderr);
    log_set_group(&g_log, FSCN_TAG);
    log_default(&g_access_log, stdout);
    log_set_pid(&g_access_log, getpid());
}

// Moves to the first record wanted. Returns 0 or -1.
int seek_to_start(capture *cap)
{
    if (g_cfg.start_rec < 2)
        return 0;
    off_t offset = 0;
    int error = EOVERFLOW;
    if (__builtin_mul_overflow(g_cfg.start_rec - 1, off_t{TS_PACKET_SIZE}, &offset))
        offset = INT64_MAX;
    else
        error = seek_capture(cap, offset);
    if (error != 0) {
        LOG_STMT(ERR_level, "fseek(, %ld, SEEK_SET) ERROR(%d): %s\n", offset, error,
                 strerror(error));
        return -1;
    }
    LOG_STMT(INFO_level, "Moved to record %ld\n", g_cfg.start_rec);
    return 0;
}

struct read_counts {
    size_t total_bytes = 0;
    size_t total_recs = 0;
};

// Analyses one group of packets. Returns false when the run is to end: `rc` tells the engine's
// status, 0 at the record limit. A quit signal leaves the group alone and lets the reading go on.
bool process_group(tsan_t th, const uint8_t *pkts, size_t rcount, read_counts *counts, int *rc)
{
    const uint64_t max_records = g_cfg.max_records;
    for (size_t i = 0; i < rcount && g_quit == 0; ++i) {
        *rc = tsan_process(th, pkts + i * TS_PACKET_SIZE);
        if (*rc != 0)
            return false;
        // The limit is looked at after the packet and before it is counted: one more is analysed.
        if (max_records != 0 && counts->total_recs >= max_records)
            return false;
        ++counts->total_recs;
    }
    return true;
}

// Runs the capture through the engine and reports. Returns the engine's status.
int run(tsan_t th, capture *cap)
{
    signal(SIGINT, handle_quit);
    signal(SIGTERM, handle_quit);
    setvbuf(stdout, nullptr, _IONBF, 0); // every alert reaches its reader at once
    LOG_STMT(NORM_level, "%s STARTING. PID=%ld\n", version_banner(), static_cast<long>(getpid()));
    LOG_STMT(INFO_level, "reading [%s]\n", g_cfg.fpath);

    int rc = 0;
    read_counts counts;
    const uint8_t *pkts = nullptr;
    for (size_t rcount = 0; (rcount = next_packets(cap, &pkts)) > 0;) {
        counts.total_bytes += TS_PACKET_SIZE * rcount;
        if (!process_group(th, pkts, rcount, &counts, &rc))
            break;
    }
    if (cap->error != 0)
        LOG_STMT(ERR_level, "read([%s]) ERROR(%d): %s\n", g_cfg.fpath, cap->error,
                 strerror(cap->error));

    tsan_check_ndat(th);
    LOG_STMT(INFO_level, "%zu/%zu bytes/records read from [%s]\n", counts.total_bytes,
             counts.total_recs, g_cfg.fpath);
    tsan_dump_stats(stderr, th);
    fputc('\n', stdout);
    return rc;
}

int report_no_memory(const char *call)
{
    LOG_STMT(ERR_level, "%s() ERROR(%d): %s\n", call, ENOMEM, strerror(ENOMEM));
    return ENOMEM;
}

// Everything between the options and the end. Returns the run's status.
int analyze_capture()
{
    int rc = 0;
    const context th(tsan_init(nullptr, &g_cfg.tsa, &rc));
    if (th == nullptr)
        return report_no_memory("tsan_init");
    INVARIANT(g_cfg.fpath[0] != '\0');
    capture cap;
    if (const int error = open_capture(&cap, g_cfg.fpath); error != 0) {
        // The status stays 0; scripts rely on it.
        fprintf(stderr, "Cannot open [%s]: %s\n", g_cfg.fpath, strerror(error));
        return 0;
    }
    if (seek_to_start(&cap) != 0)
        return -1;
    return run(th.get(), &cap);
}

// The whole run. Returns its status.
int analyze(int argc, char *argv[])
{
    try {
        const int rc = parse_options(argc, argv);
        return rc == 0 ? analyze_capture() : rc;
    } catch (const std::bad_alloc &) {
        return report_no_memory("new");
    }
}

} // namespace

int main(int argc, char *argv[])
{
    keep_outputs();
    if (argc <= 1)
        usage(argc > 0 ? argv[0] : "orvscan", 1);
    setup_logs();
    init_config();
    int rc = analyze(argc, argv);
    if (rc < 0)
        rc = 2;
    LOG_STMT(NORM_level, "%s EXIT(%d). PID=%ld\n", version_banner(), rc,
             static_cast<long>(getpid()));
    log_flush(&g_log, 0);
    log_close(&g_log);
    return rc;
}
