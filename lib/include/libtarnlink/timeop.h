// Clocks, time-outs and time strings.
//
// Times are timespec values (seconds and nanoseconds) or time_t seconds since the epoch. Nothing
// here is thread-safe: the clock reader, the cached zone name and the cached calendar are
// process-wide. Inside a signal handler clocks and spans may be used, and mk_timestr, which refuses
// when it cannot; the rest may not.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// Time-stamp flags, for mk_timestr, scan_log_time and a log's time format.
enum time_flags {
    f_REALTIME_TIMER = 0,    // stamps are taken from the real-time clock
    f_MONOTONIC_TIMER = 1,   // ... from the monotonic clock
    f_TIMER_ID = 3,          // mask of the clock choice
    f_FMT_SECONDS = 16,      // whole seconds, no fraction
    f_NO_TIME = 256,         // no stamp at all (logger only)
    f_GMT_TIME = 512,        // calendar in GMT instead of local time
    f_RAW_TIME = 1024,       // "seconds.microseconds", no calendar
    f_BAD_TIME = 1073741824, // reserved
};

enum {
    TIMESTR_SZ = 64, // room for any time string of the system
};

// What the makers and readers of time strings return when they fail, and what the makers of dates
// and spans return.
enum time_status {
    TIME_OK = 0,
    TIME_FAILED = -1,
    TIME_BUSY = -35, // a signal handler has interrupted the conversion of another time
};

// ---- The seam to the system's clocks

// Reads a clock like clock_gettime: 0 on success, -1 with errno set.
typedef int (*clock_reader)(clockid_t clk_id, struct timespec *tms);

// Makes every clock reading of the library, the engine and the program go through `reader` (null:
// the system's clocks again). Returns the reader used so far. Meant for tests and simulators. A
// reader written in C++ must not throw.
clock_reader set_clock_reader(clock_reader reader);

// Reads a clock through the seam; result as for clock_gettime.
int read_clock(clockid_t clk_id, struct timespec *tms);

// The real-time clock's seconds.
time_t now_seconds(void);

// ---- Clocks and spans

// Stores the clock's time. A clock that cannot be read ends the process.
void set_clk_now(struct timespec *tms, clockid_t clk_id);
void set_real_now(struct timespec *tms); // real-time clock
void set_now(struct timespec *tms);      // monotonic clock

// 1 when the reference time is strictly later than last_tm + tmout, else 0. The reference is
// `clknow`, or, when that is null, the real-time clock (in_real_time set or not: the library has
// no cached time of its own).
int timed_out_as(const struct timespec *last_tm, const struct timespec *tmout, int in_real_time,
                 const struct timespec *clknow);
int timed_out(const struct timespec *last, const struct timespec *tmout);
int timed_out_ext(const struct timespec *last, const struct timespec *tmout,
                  const struct timespec *now);
int timed_out_real(const struct timespec *last, const struct timespec *tmout);

// span = till - from.
void calc_timespan(const struct timespec *from, const struct timespec *till, struct timespec *span);

enum tspan_mode { TSPAN_NONE = 0, TSPAN_TIME = 1, TSPAN_TICKS = 2 };

// A span or a point of time, in clock time or in ticks of an unsigned 32-bit counter.
typedef struct tspan {
    int mode; // tspan_mode
    union {
        struct timespec tms;
        uint32_t ticks;
    } val;
} tspan;

// Stores `tm` or `ticks`, whichever the mode of `spn` calls for; another mode is an invariant
// broken.
void set_tspan(tspan *spn, const struct timespec *tm, uint32_t ticks);

// Whether the time-out `tmout` that began at `last` is over. Both must have the same mode. In
// ticks, a `last` of 0 is always over, and a counter that has wrapped is taken into account.
bool tspan_timed_out(const tspan *last, const tspan *tmout, const struct timespec *now,
                     uint32_t ticks_now);

// result = |a - b|; a null argument means the monotonic clock's now (read once for both).
void tspec_diff(const struct timespec *a, const struct timespec *b, struct timespec *result);

// Milliseconds, truncated; -1 for "no time" (seconds of all ones).
int64_t tms2ms(const struct timespec *t);

// Milliseconds between two instants, in either order; null means now, as for tspec_diff.
int64_t diff_ms(const struct timespec *a, const struct timespec *b);

void cpy_timespec(const struct timespec *src, struct timespec *dst);

// ---- Time strings

// The local zone's abbreviation with a blank before it, such as " UTC", in a buffer of the library;
// null when it cannot be had. It is looked up once and kept until called with `refresh` set.
const char *get_timezone(int refresh);

// Writes the time stamp of a log line: "YYYY-MM-DD HH:MM:SS.uuuuuu ZONE" in local time, or as the
// flags say. Returns the length, TIME_FAILED, or TIME_BUSY in a signal handler that has interrupted
// the conversion of another time. The zone named is always the local one, for GMT stamps too. The
// calendar follows TZ after a tzset; one that differs only in the days its clocks change, from the
// next second on.
int mk_timestr(const struct timespec *tms, uint32_t flags, char *buf, size_t buflen);

// Reads a time stamp back, as local time without daylight saving. Returns the number of fields
// matched (7, or 6 of whole seconds, or 2 of raw time), or TIME_FAILED. `tms` is zero on failure.
int scan_log_time(const char *s, struct timespec *tms, uint32_t flags);

// "YYYY-MM-DD" in GMT. Returns TIME_OK or TIME_FAILED.
int mk_gmt_date(time_t ut, char *buf, size_t buflen);

// "01d 01h:01m:01s", without the days when there are none. Returns TIME_OK or TIME_FAILED.
int mk_timespan(long total_sec, char *buf, size_t buflen);

// The last whole second (23:59:59) of the local day that contains `t`, or TIME_FAILED.
time_t get_endofday_utime(time_t t);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
