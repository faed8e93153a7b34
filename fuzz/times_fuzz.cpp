// Time strings and numbers. The input begins with a time (seconds and nanoseconds, eight bytes
// each), time flags (four bytes) and the length of the buffer (one byte) and ends with a text.

#include "fuzz.h"

#include <libtarnlink/strops.h>
#include <libtarnlink/timeop.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

namespace {

struct time_input {
    int64_t sec;
    int64_t nsec;
    uint32_t flags;
    uint8_t room;
};
constexpr size_t INPUT_LEN = 8 + 8 + 4 + 1;

time_input read_input(const uint8_t *data)
{
    time_input in{};
    memcpy(&in.sec, data, 8);
    memcpy(&in.nsec, data + 8, 8);
    memcpy(&in.flags, data + 16, 4);
    in.room = data[20];
    return in;
}

// Writers of texts, into memory of the size they are told: they end it, or refuse.
void try_writers(const time_input &in)
{
    const auto buf = std::make_unique<char[]>(in.room);
    const auto is_text = [&] { return strnlen(buf.get(), in.room) < in.room; };
    const timespec t{in.sec, in.nsec};
    expect(mk_timestr(&t, in.flags, buf.get(), in.room) < 0 || in.room == 0 || is_text());
    expect(mk_gmt_date(in.sec, buf.get(), in.room) != 0 || is_text());
    expect(mk_timespan(in.sec, buf.get(), in.room) != 0 || is_text());
}

// What a log writes is read back, in the years that have four digits.
void try_round_trip(const time_input &in)
{
    constexpr int64_t year_1000 = -30610224000, year_10000 = 253402300800;
    const timespec t{year_1000 + static_cast<int64_t>(static_cast<uint64_t>(in.sec) %
                                                      uint64_t{year_10000 - year_1000}),
                     static_cast<long>(static_cast<uint64_t>(in.nsec) % 1000000000)};
    if (t.tv_sec < 0 && t.tv_sec >= -1) // -1 is the calendar's own word for a failure
        return;
    const uint32_t flags = in.flags & (f_FMT_SECONDS | (t.tv_sec < 0 ? 0 : f_RAW_TIME));
    char text[TIMESTR_SZ];
    expect(mk_timestr(&t, flags, text, sizeof text) > 0);
    const bool has_fraction = flags != f_FMT_SECONDS;
    timespec back{};
    expect(scan_log_time(text, &back, flags) > 0);
    expect(back.tv_sec == t.tv_sec);
    expect(back.tv_nsec == (has_fraction ? t.tv_nsec / 1000 * 1000 : 0));
}

void try_readers(const char *text, uint32_t flags)
{
    timespec t{1, 1};
    if (scan_log_time(text, &t, flags) < 0)
        expect(t.tv_sec == 0 && t.tv_nsec == 0);
    double value = 0.5;
    const int rc = a2double(text, &value);
    expect(rc == 0 || ((rc == -3 || rc == -4 || rc == -5) && value == 0.5));
    int64_t number = 7;
    const int whole = a2int64(text, &number);
    expect(whole == rc || (rc == 0 && whole == -2));
    if (whole == 0 && std::fabs(value) < 0x1p53)
        expect(static_cast<double>(number) == std::trunc(value));
    if (whole != 0)
        expect(number == 7);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool in_utc = setenv("TZ", "UTC", 1) == 0;
    if (!in_utc || size < INPUT_LEN)
        return 0;
    swallow_logs();
    const time_input in = read_input(data);
    const std::string text(data + INPUT_LEN, data + size);
    try_writers(in);
    try_round_trip(in);
    try_readers(text.c_str(), in.flags);
    return 0;
}
