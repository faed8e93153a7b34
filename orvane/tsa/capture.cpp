#include "tsa/capture.h"

#include "tsanalyze/tsanalyze.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t GROUP_BYTES = READ_PKTS * TS_PACKET_SIZE;
// Small enough for the second-level cache: packets are looked at while they are still in it.
constexpr size_t BUF_BYTES = 14 * GROUP_BYTES;

alignas(64) uint8_t g_buf[BUF_BYTES];

// Reads what the input has, as far as there is room. False at the end of the input.
bool fill(capture *cap)
{
    for (;;) {
        const ssize_t n = read(cap->fd, g_buf + cap->end, BUF_BYTES - cap->end);
        if (n > 0) {
            cap->end += static_cast<size_t>(n);
            return true;
        }
        if (n == 0)
            return false;
        if (errno != EINTR) {
            cap->error = errno;
            return false;
        }
    }
}

} // namespace

capture::~capture()
{
    if (fd >= 0)
        close(fd);
}

int open_capture(capture *cap, const char *path)
{
    cap->fd = open(path, O_RDONLY | O_CLOEXEC);
    return cap->fd < 0 ? errno : 0;
}

int seek_capture(capture *cap, off_t offset)
{
    return lseek(cap->fd, offset, SEEK_SET) == -1 ? errno : 0;
}

size_t next_packets(capture *cap, const uint8_t **pkts)
{
    bool more = true;
    while (more && cap->end - cap->start < GROUP_BYTES) {
        // Begin anew at the front: always on the same cache lines, and with room for a large read.
        memmove(g_buf, g_buf + cap->start, cap->end - cap->start);
        cap->end -= cap->start;
        cap->start = 0;
        more = fill(cap);
    }
    const size_t count = std::min(READ_PKTS, (cap->end - cap->start) / TS_PACKET_SIZE);
    *pkts = g_buf + cap->start;
    cap->start += count * TS_PACKET_SIZE;
    return count;
}
