#include "report/blocks.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

constexpr size_t TORN_BYTES =
    4096; // kept of a line longer than the buffer: more than a line can be

} // namespace

line_blocks::line_blocks(size_t bytes) : buf(new char[bytes]), size(bytes) {}

std::span<char> blocks_room(line_blocks *in)
{
    size_t held = in->end - in->start;
    if (held == in->size) {
        in->is_torn = true;
        in->start = in->end - TORN_BYTES;
        held = TORN_BYTES;
    }
    memmove(in->buf.get(), in->buf.get() + in->start, held);
    in->start = 0;
    in->end = in->scanned = held;
    return {in->buf.get() + held, in->size - held};
}

void blocks_filled(line_blocks *in, size_t bytes)
{
    in->end += bytes;
    in->at_end = bytes == 0;
}

bool next_line(line_blocks *in, text_line *line)
{
    const char *from = in->buf.get() + in->start;
    const char *seek = in->buf.get() + in->scanned;
    const char *end = in->buf.get() + in->end;
    const void *feed = memchr(seek, '\n', static_cast<size_t>(end - seek));
    if (feed == nullptr && (!in->at_end || from == end)) {
        in->scanned = in->end;
        return false;
    }
    const char *till = feed != nullptr ? static_cast<const char *>(feed) : end;
    *line = {{from, static_cast<size_t>(till - from)}, in->is_torn, feed != nullptr};
    in->start += line->text.size() + (feed != nullptr ? 1 : 0);
    in->scanned = in->start;
    in->is_torn = false;
    return true;
}

int fill_blocks(line_blocks *in, int fd)
{
    const std::span<char> room = blocks_room(in);
    const ssize_t n = read(fd, room.data(), room.size());
    if (n < 0)
        return errno == EINTR ? 1 : -errno;
    blocks_filled(in, static_cast<size_t>(n));
    return n > 0 ? 1 : 0;
}
