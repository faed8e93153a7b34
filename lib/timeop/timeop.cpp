#include <libtarnlink/timeop.h>

#include <libtarnlink/invariant.h>
#include <libtarnlink/log.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

loglevel_ctx g_llctx;

clock_reader g_clock_reader = clock_gettime;

char g_timezone[16]; // cached zone text, " ZONE"

// Set while a calendar conversion is under way; a signal handler that wants one then is refused.
volatile sig_atomic_t g_tmlock;

constexpr long NSEC_PER_SEC = 1000000000;
static_assert(sizeof(long) == 8 && sizeof(time_t) == 8); // as the formats here take them

// The zone as tzset leaves it.
struct zone_state {
    const char *names[2]; // the C library keeps one text for each name
    long seconds_west;
    int has_summer_time;

    static zone_state now() { return {{tzname[0], tzname[1]}, ::timezone, daylight}; }
    bool operator==(const zone_state &) const = default;
};

// The calendar text of one second. Log lines come in bursts, so it is worth keeping.
struct calendar_text {
    time_t sec;
    bool gmt;
    int len; // 0: nothing kept
    zone_state zone;
    char text[TIMESTR_SZ];
};
calendar_text g_calendar;
volatile sig_atomic_t g_calendar_changes; // how often; wraps

struct calendar_lock {
    calendar_lock()
    {
        g_tmlock = 1;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    ~calendar_lock()
    {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        g_tmlock = 0;
    }
    calendar_lock(const calendar_lock &) = delete;
    calendar_lock &operator=(const calendar_lock &) = delete;
};

// Copies the text kept to `out` when it is that of this second. Returns its length, or 0: none, or
// a signal handler has changed it in the middle of the copy.
int copy_kept_calendar(time_t sec, bool gmt, char *out)
{
    const sig_atomic_t changes = g_calendar_changes;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    const calendar_text &c = g_calendar;
    const int len = c.len;
    if (len == 0 || c.sec != sec || c.gmt != gmt || c.zone != zone_state::now())
        return 0;
    memcpy(out, c.text, static_cast<size_t>(len));
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return changes == g_calendar_changes ? len : 0;
}

// Writes the calendar text of a second to `out`, which has room for TIMESTR_SZ bytes. Returns its
// length, or 0 when the time has no calendar.
int put_calendar(time_t sec, bool gmt, char *out)
{
    if (const int len = copy_kept_calendar(sec, gmt, out); len > 0)
        return len;
    const calendar_lock lock;
    g_calendar_changes = g_calendar_changes + 1;
    calendar_text &c = g_calendar;
    c.len = 0;
    tm t{};
    if ((gmt ? gmtime_r(&sec, &t) : localtime_r(&sec, &t)) == nullptr)
        return 0;
    c.sec = sec;
    c.gmt = gmt;
    c.zone = zone_state::now();
    c.len = snprintf(c.text, sizeof c.text, "%04ld-%02d-%02d %02d:%02d:%02d", t.tm_year + 1900L,
                     t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    memcpy(out, c.text, static_cast<size_t>(c.len));
    return c.len;
}

bool is_later(const timespec &a, const timespec &b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

bool ticks_timed_out(uint32_t last, uint32_t tmout, uint32_t now)
{
    if (last == 0)
        return true;
    if (now < last) // the counter has wrapped; the tick less is intended
        return now - last - 1 >= tmout;
    return now >= tmout + last;
}

int mk_raw_timestr(const timespec *tms, char *buf, size_t buflen)
{
    const int n = snprintf(buf, std::max<size_t>(buflen, 1) - 1, "%ld.%06ld", tms->tv_sec,
                           tms->tv_nsec / 1000);
    return static_cast<size_t>(n) >= buflen ? TIME_FAILED : n;
}

// Appends ".uuuuuu" behind `out`; returns the end.
char *put_micros(char *out, long nsec)
{
    if (nsec < 0 || nsec >= NSEC_PER_SEC) // no such time, but a host may have one
        return out + snprintf(out, sizeof ".-9223372036854775", ".%06ld", nsec / 1000);
    *out++ = '.';
    long micros = nsec / 1000;
    for (int i = 5; i >= 0; --i, micros /= 10)
        out[i] = static_cast<char>('0' + micros % 10);
    return out + 6;
}

int scan_raw_time(const char *s, timespec *tms)
{
    long sec = 0;
    long usec = 0;
    const int n = sscanf(s, "%ld.%06ld ", &sec, &usec);
    if (n < 2)
        return TIME_FAILED;
    *tms = {sec, usec * 1000};
    return n;
}

} // namespace

clock_reader set_clock_reader(clock_reader reader)
{
    const clock_reader previous = g_clock_reader;
    g_clock_reader = reader != nullptr ? reader : clock_gettime;
    return previous;
}

int read_clock(clockid_t clk_id, timespec *tms) { return g_clock_reader(clk_id, tms); }

time_t now_seconds()
{
    timespec now{};
    set_real_now(&now);
    return now.tv_sec;
}

void set_clk_now(timespec *tms, clockid_t clk_id)
{
    if (read_clock(clk_id, tms) != 0) {
        perror("clock_gettime");
        abort();
    }
}

void set_real_now(timespec *tms) { set_clk_now(tms, CLOCK_REALTIME); }

void set_now(timespec *tms) { set_clk_now(tms, CLOCK_MONOTONIC); }

void cpy_timespec(const timespec *src, timespec *dst) { *dst = *src; }

// ---- Time-outs

int timed_out_as(const timespec *last_tm, const timespec *tmout, int /*in_real_time*/,
                 const timespec *clknow)
{
    timespec now{};
    if (clknow != nullptr)
        now = *clknow;
    else
        set_real_now(&now);
    timespec deadline{last_tm->tv_sec + tmout->tv_sec, last_tm->tv_nsec + tmout->tv_nsec};
    if (deadline.tv_nsec >= NSEC_PER_SEC) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= NSEC_PER_SEC;
    }
    return is_later(now, deadline) ? 1 : 0;
}

int timed_out(const timespec *last, const timespec *tmout)
{
    return timed_out_as(last, tmout, 0, nullptr);
}

int timed_out_ext(const timespec *last, const timespec *tmout, const timespec *now)
{
    return timed_out_as(last, tmout, 0, now);
}

int timed_out_real(const timespec *last, const timespec *tmout)
{
    return timed_out_as(last, tmout, 1, nullptr);
}

void calc_timespan(const timespec *from, const timespec *till, timespec *span)
{
    timespec diff{till->tv_sec - from->tv_sec, till->tv_nsec - from->tv_nsec};
    if (diff.tv_nsec < 0) {
        diff.tv_sec -= 1;
        diff.tv_nsec += NSEC_PER_SEC;
    }
    *span = diff;
}

void set_tspan(tspan *spn, const timespec *tm, uint32_t ticks)
{
    switch (spn->mode) {
    case TSPAN_TIME:
        spn->val.tms = *tm;
        break;
    case TSPAN_TICKS:
        spn->val.ticks = ticks;
        break;
    default:
        INVARIANT(0);
    }
}

bool tspan_timed_out(const tspan *last, const tspan *tmout, const timespec *now, uint32_t ticks_now)
{
    INVARIANT(tmout->mode == last->mode);
    switch (tmout->mode) {
    case TSPAN_TIME:
        return timed_out_ext(&last->val.tms, &tmout->val.tms, now) != 0;
    case TSPAN_TICKS:
        return ticks_timed_out(last->val.ticks, tmout->val.ticks, ticks_now);
    default:
        INVARIANT(0);
    }
    return false;
}

// ---- Differences

#define timespeccmp(a, b, CMP)                                                                     \
    (((a)->tv_sec == (b)->tv_sec) ? ((a)->tv_nsec CMP(b)->tv_nsec) : ((a)->tv_sec CMP(b)->tv_sec))

void tspec_diff(const timespec *a, const timespec *b, timespec *result)
{
    timespec now{};
    if (a == nullptr || b == nullptr)
        set_now(&now);
    const timespec *delta = a != nullptr ? a : &now;
    const timespec *pb = b != nullptr ? b : &now;
    if (is_later(*pb, *delta))
        std::swap(delta, pb);
    INVARIANT(timespeccmp(delta, pb, >=));
    calc_timespan(pb, delta, result);
}

int64_t tms2ms(const timespec *t)
{
    return t->tv_sec == -1 ? -1 : t->tv_sec * 1000 + t->tv_nsec / 1000000;
}

int64_t diff_ms(const timespec *a, const timespec *b)
{
    timespec diff{};
    tspec_diff(a, b, &diff);
    return tms2ms(&diff);
}

// ---- Time strings

const char *get_timezone(int refresh)
{
    if (refresh == 0 && g_timezone[0] != '\0')
        return g_timezone;
    if (g_tmlock != 0)
        return nullptr;
    const time_t now = now_seconds();
    const calendar_lock lock;
    g_calendar_changes = g_calendar_changes + 1;
    g_calendar.len = 0;
    tm local{};
    if (localtime_r(&now, &local) == nullptr) {
        perror("localtime_r");
        return nullptr;
    }
    if (strftime(g_timezone, sizeof g_timezone - 1, " %Z", &local) == 0) {
        perror("strftime");
        strcpy(g_timezone, "#ERR#");
        return nullptr;
    }
    return g_timezone;
}

int mk_timestr(const timespec *tms, uint32_t flags, char *buf, size_t buflen)
{
    if ((flags & f_RAW_TIME) != 0)
        return mk_raw_timestr(tms, buf, buflen);
    if (g_tmlock != 0)
        return TIME_BUSY;
    char text[TIMESTR_SZ + 48];
    const int len = put_calendar(tms->tv_sec, (flags & f_GMT_TIME) != 0, text);
    if (len == 0) {
        perror("gmtime_r/localtime_r");
        return TIME_FAILED;
    }
    char *end = text + len;
    if ((flags & f_FMT_SECONDS) == 0)
        end = put_micros(end, tms->tv_nsec);
    const char *zone = get_timezone(0);
    if (zone == nullptr)
        zone = "";
    end = std::copy_n(zone, strlen(zone) + 1, end);

    const size_t n = static_cast<size_t>(end - text) - 1;
    if (n > buflen) {
        fprintf(stderr, "%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__,
                static_cast<int>(n), static_cast<long>(buflen));
        return TIME_FAILED;
    }
    if (buflen > 0) { // a text of exactly buflen characters is cut by one and accepted
        const size_t kept = std::min(n, buflen - 1);
        memcpy(buf, text, kept);
        buf[kept] = '\0';
    }
    return static_cast<int>(n);
}

int scan_log_time(const char *s, timespec *tms, uint32_t flags)
{
    *tms = {};
    if ((flags & f_RAW_TIME) != 0)
        return scan_raw_time(s, tms);

    tm t{};
    long usec = 0;
    int n = 0;
    int wanted = 0;
    if ((flags & f_FMT_SECONDS) != 0) {
        wanted = 6;
        n = sscanf(s, "%04d-%02d-%02d %02d:%02d:%02d ", &t.tm_year, &t.tm_mon, &t.tm_mday,
                   &t.tm_hour, &t.tm_min, &t.tm_sec);
    } else {
        wanted = 7;
        n = sscanf(s, "%04d-%02d-%02d %02d:%02d:%02d.%06ld ", &t.tm_year, &t.tm_mon, &t.tm_mday,
                   &t.tm_hour, &t.tm_min, &t.tm_sec, &usec);
    }
    if (n < wanted)
        return TIME_FAILED;
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    const time_t sec = mktime(&t);
    if (sec == static_cast<time_t>(-1)) {
        LOG_STMT(ERR_level, "%s: cannot make time from [%s]\n", __func__, s);
        return TIME_FAILED;
    }
    *tms = {sec, usec * 1000};
    return n;
}

int mk_gmt_date(time_t ut, char *buf, size_t buflen)
{
    tm t{};
    if (gmtime_r(&ut, &t) == nullptr) {
        perror("gmtime");
        return TIME_FAILED;
    }
    const int n =
        snprintf(buf, buflen, "%04ld-%02d-%02d", t.tm_year + 1900L, t.tm_mon + 1, t.tm_mday);
    if (n < 1 || static_cast<size_t>(n) > buflen) {
        LOG_STMT(ERR_level, "%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__, n,
                 static_cast<long>(buflen));
        return TIME_FAILED;
    }
    buf[buflen - 1] = '\0';
    return TIME_OK;
}

int mk_timespan(long total_sec, char *buf, size_t buflen)
{
    size_t used = 0;
    const long days = total_sec / 86400;
    if (days > 0) {
        const int n = snprintf(buf, buflen, "%02ldd ", days);
        if (n < 1 || static_cast<size_t>(n) > buflen)
            return TIME_FAILED;
        used = static_cast<size_t>(n);
    }
    const long rest = total_sec % 86400;
    const int n = snprintf(buf + used, buflen - used, "%02ldh:%02ldm:%02lds", rest / 3600,
                           rest % 3600 / 60, rest % 60);
    return n < 1 || static_cast<size_t>(n) > buflen - used ? TIME_FAILED : TIME_OK;
}

time_t get_endofday_utime(time_t t)
{
    tm local{};
    if (localtime_r(&t, &local) == nullptr) {
        LOG_STMT(ERR_level, "%s: localtime_r() FAILED\n", __func__);
        return TIME_FAILED;
    }
    local.tm_hour = 23;
    local.tm_min = 59;
    local.tm_sec = 59;
    return mktime(&local);
}
