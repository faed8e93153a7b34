// A clock set by hand, logs kept as text, and signals that come all the time.
#pragma once

#include <libtarnlink/log.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/time.h>

constexpr time_t BOOT = 500; // the monotonic clock is behind the others by so many seconds

inline timespec g_now; // the time of day; before 1970 every clock fails
inline unsigned g_clock_reads;

// While it lives, g_now is the time.
struct test_clock {
    explicit test_clock(time_t now)
    {
        g_now = {now, 0};
        set_clock_reader([](clockid_t clock, timespec *tms) {
            ++g_clock_reads;
            *tms = {g_now.tv_sec - (clock == CLOCK_MONOTONIC ? BOOT : 0), g_now.tv_nsec};
            return g_now.tv_sec < 0 ? -1 : 0;
        });
    }
    ~test_clock() { set_clock_reader(nullptr); }
    test_clock(test_clock &&) = delete;
};

// A log whose lines, without time stamps at first, are kept as text. It ends as it began: unused.
class log_text {
public:
    explicit log_text(log_ctx *log) : m_log(log)
    {
        *log = {};
        log_default(log, m_stream);
        log_timefmt(log, f_NO_TIME);
    }
    ~log_text()
    {
        *m_log = {};
        fclose(m_stream);
        free(m_text);
    }
    log_text(log_text &&) = delete;

    // What was written since the last call.
    std::string take()
    {
        fflush(m_stream);
        const std::string text(m_text + m_taken, m_size - m_taken);
        m_taken = m_size;
        return text;
    }

private:
    log_ctx *m_log;
    char *m_text = nullptr;
    size_t m_size = 0, m_taken = 0;
    FILE *m_stream = open_memstream(&m_text, &m_size);
};

inline void (*g_interruption)();
inline volatile sig_atomic_t g_interruptions;

// Does `work` again and again, until a signal that comes every 50 microseconds has interrupted it
// 5000 times: often enough for a rare meeting.
template <typename Work>
void do_interrupted(Work work, void (*interruption)())
{
    const auto set_timer = [](suseconds_t period) {
        const itimerval timer{{0, period}, {0, period}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    };
    g_interruption = interruption;
    g_interruptions = 0;
    const auto before = signal(SIGALRM, [](int) {
        g_interruption();
        g_interruptions = g_interruptions + 1;
    });
    set_timer(50);
    while (g_interruptions < 5000)
        work();
    set_timer(0);
    signal(SIGALRM, before);
}
