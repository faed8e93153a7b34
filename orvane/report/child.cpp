#include "report/child.h"

#include "orvane/tsa/capture.h"

#include <libtarnlink/log.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr size_t LINES_BUFFER = 64 << 10;

volatile sig_atomic_t g_quit;
int g_capture_fd = -1;
int g_nothing_fd = -1; // brings no bytes
child_progress *g_progress;

// The capture ends here: also a pipe that nobody writes to any more.
void end_capture(int /*signo*/)
{
    g_quit = 1;
    if (g_capture_fd >= 0)
        dup2(g_nothing_fd, g_capture_fd);
}

void setup_signals()
{
    struct sigaction action {};
    action.sa_handler = end_capture; // reading is interrupted, not begun again
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGKILL); // nobody would read the lines
}

void setup_logs()
{
    setvbuf(stdout, nullptr, _IOFBF, LINES_BUFFER);
    log_default(&g_log, stderr);
    log_set_modules(&g_log, ERR_level);
    log_default(&g_access_log, stdout);
    log_timefmt(&g_access_log, f_NO_TIME); // when a capture was replayed is of no interest
}

run_end end_of(int rc, const capture &cap)
{
    if (rc != 0)
        return rc == -16 ? run_end::idle : run_end::lost_sync;
    if (g_quit != 0)
        return run_end::interrupted;
    return cap.error != 0 ? run_end::unreadable : run_end::complete;
}

run_end run_capture(tsan_t th, capture *cap, child_progress *progress)
{
    const uint8_t *pkts = nullptr;
    uint64_t count = 0;
    int rc = 0;
    errno = 0;
    for (size_t n = 0; rc == 0 && g_quit == 0 && (n = next_packets(cap, &pkts)) > 0;) {
        for (size_t i = 0; i < n && rc == 0 && g_quit == 0; ++i) {
            progress->packets.store(++count, std::memory_order_relaxed);
            rc = tsan_process(th, pkts + i * TS_PACKET_SIZE);
        }
        if (errno == ENOMEM) { // the engine passes over a table that finds no memory
            cap->error = ENOMEM;
            break;
        }
    }
    progress->error = cap->error;
    return end_of(rc, *cap);
}

[[noreturn]] void leave(run_end end, child_progress *progress)
{
    fflush(stdout);
    progress->end = end;
    _exit(0);
}

[[noreturn]] void leave_unread(int error, child_progress *progress)
{
    progress->error = error;
    leave(g_quit != 0 ? run_end::interrupted : run_end::unreadable, progress);
}

} // namespace

void analyse_in_child(const tsan_config &settings, const std::string &path,
                      child_progress *progress)
{
    g_progress = progress;
    std::set_new_handler([] { leave_unread(ENOMEM, g_progress); });
    setup_signals();
    setup_logs();
    int error = 0;
    tsan_config cfg = settings;
    cfg.access_log_alerts = true;
    cfg.no_rlog = true;
    const tsan_t th = tsan_init("-", &cfg, &error);
    if (th == nullptr)
        leave_unread(error, progress);
    capture cap;
    g_nothing_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (error = open_capture(&cap, path.c_str()); error != 0)
        leave_unread(error, progress);
    g_capture_fd = cap.fd;
    const run_end end = run_capture(th, &cap, progress);
    tsan_check_ndat(th);
    tsan_alog_stats(th);
    tsan_free(th);
    leave(end, progress);
}
