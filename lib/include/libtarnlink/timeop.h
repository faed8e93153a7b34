// Clocks, time-outs and time strings.
//
// Times are timespec values (seconds and nanoseconds) or time_t seconds since the epoch. Nothing
// here is thread-safe: the cached zone name and calendar are process-wide.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

// Time-stamp flags, for mk_timestr, scan_log_time and a log's time format.
enum time_flags : uint32_t {
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

// ---- The seam to the system's clocks

// Reads a clock like clock_gettime: 0 on success, -1 with errno set.
typedef int (*clock_reader)(clockid_t clk_id, timespec *tms);

// Makes every clock reading of the library, the engine and the program go through `reader` (null:
// the system's clocks again). Returns the reader used so far. Meant for tests and simulators.
clock_reader set_clock_reader(clock_reader reader);

// Reads a clock through the seam; result as for clock_gettime.
int read_clock(clockid_t clk_id, timespec *tms);

// The real-time clock's seconds.
time_t now_seconds();

// ---- Clocks and spans

// Stores the clock's time. A clock that cannot be read ends the process.
void set_clk_now(timespec *tms, clockid_t clk_id);
void set_real_now(timespec *tms); // real-time clock
void set_now(timespec *tms);      // monotonic clock

// 1 when the reference time is strictly later than last_tm + tmout, else 0. The reference is
// `clknow`, or, when that is null, the real-time clock (in_real_time set or not: the library has
// no cached time of its own).
int timed_out_as(const timespec *last_tm, const timespec *tmout, int in_real_time,
                 const timespec *clknow);
int timed_out(const timespec *last, const timespec *tmout);
int timed_out_ext(const timespec *last, const timespec *tmout, const timespec *now);
int timed_out_real(const timespec *last, const timespec *tmout);

// span = till - from.
void calc_timespan(const timespec *from, const timespec *till, timespec *span);

enum tspan_mode { TSPAN_NONE = 0, TSPAN_TIME = 1, TSPAN_TICKS = 2 };

// A span or a point of time, in clock time or in ticks of an unsigned 32-bit counter.
struct tspan {
    int mode; // tspan_mode
    union {
        timespec tms;
        uint32_t ticks;
    } val;
};

// Stores `tm` or `ticks`, whichever the mode of `spn` calls for; another mode is an invariant
// broken.
void set_tspan(tspan *spn, const timespec *tm, uint32_t ticks);

// Whether the time-out `tmout` that began at `last` is over. Both must have the same mode. In
// ticks, a `last` of 0 is always over, and a counter that has wrapped is taken into account.
bool tspan_timed_out(const tspan *last, const tspan *tmout, const timespec *now,
                     uint32_t ticks_now);

// result = |a - b|; a null argument means the monotonic clock's now (read once for both).
void tspec_diff(const timespec *a, const timespec *b, timespec *result);

// Milliseconds, truncated; -1 for "no time" (seconds of all ones).
int64_t tms2ms(const timespec *t);

// Milliseconds between two instants, in either order; null means now, as for tspec_diff.
int64_t diff_ms(const timespec *a, const timespec *b);

void cpy_timespec(const timespec *src, timespec *dst);

// ---- Time strings

// The local zone's abbreviation with a blank before it, such as " UTC"; null when it cannot be had.
// It is looked up once and kept until called with `refresh` set.
const char *get_timezone(int refresh);

// Writes the time stamp of a log line: "YYYY-MM-DD HH:MM:SS.uuuuuu ZONE" in local time, or as the
// flags say. Returns the length, -1 on failure, -35 when a call is already under way (a signal
// handler). The zone named is always the local one, for GMT stamps too.
int mk_timestr(const timespec *tms, uint32_t flags, char *buf, size_t buflen);

// Reads a time stamp back, as local time without daylight saving. Returns the number of fields
// matched, or -1. `tms` is zero on failure.
int scan_log_time(const char *s, timespec *tms, uint32_t flags);

// "YYYY-MM-DD" in GMT. Returns 0 or -1.
int mk_gmt_date(time_t ut, char *buf, size_t buflen);

// "01d 01h:01m:01s", without the days when there are none. Returns 0 or -1.
int mk_timespan(long total_sec, char *buf, size_t buflen);

// The last whole second (23:59:59) of the local day that contains `t`, or -1.
time_t get_endofday_utime(time_t t);
