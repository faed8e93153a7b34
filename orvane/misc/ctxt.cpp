#include "misc/ctxt.h"

#include <libtarnlink/invariant.h>
#include <libtarnlink/log.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstring>
#include <new>
#include <utility>

namespace {

loglevel_ctx g_llctx;

constexpr ssize_t MIN_LINE_ROOM = 15; // a line needs more than this

// Room for the next line, one byte for its line feed and one to spare set aside.
ssize_t room_left(const ctxt_spec *s) { return s->buflen - s->textlen - 2; }

// Appends one character of a line, four characters at most, so that it is seen as what it is. The
// zero byte of a cut line is no character of it and stays.
char *put_visible(char *out, char c)
{
    constexpr char hex[] = "0123456789abcdef";
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '\\')
        return std::copy_n("\\\\", 2, out);
    if (c == '\0' || iscntrl(byte) == 0) {
        *out = c;
        return out + 1;
    }
    const char text[] = {'\\', 'x', hex[byte >> 4], hex[byte & 15]};
    return std::copy_n(text, sizeof text, out);
}

// Writes the text, a block at a time: standard error has no buffer of its own.
void write_lines(FILE *fp, const ctxt_spec *s)
{
    char block[1024];
    char *out = block;
    for (size_t i = 0; i < static_cast<size_t>(s->textlen); ++i) {
        if (out + 4 > block + sizeof block) {
            fwrite(block, 1, static_cast<size_t>(out - block), fp);
            out = block;
        }
        if (s->line_ends[i])
            *out++ = '\n';
        else
            out = put_visible(out, s->buf[i]);
    }
    fwrite(block, 1, static_cast<size_t>(out - block), fp);
}

} // namespace

int open_ctxt(ctxt_spec *s, ssize_t max_size)
{
    const size_t size = static_cast<size_t>(max_size);
    std::unique_ptr<bool[]> line_ends(new (std::nothrow) bool[size]());
    s->buf.reset(line_ends != nullptr ? new (std::nothrow) char[size]() : nullptr);
    if (s->buf == nullptr)
        return -1;
    s->line_ends = std::move(line_ends);
    s->buflen = max_size;
    s->textlen = 0;
    return 0;
}

void close_ctxt(ctxt_spec *s)
{
    s->buf.reset();
    s->line_ends.reset();
    s->buflen = 0;
    s->textlen = 0;
}

void replace_ctxt(ctxt_spec *dest, ctxt_spec *src)
{
    dest->buf = std::move(src->buf);
    dest->line_ends = std::move(src->line_ends);
    dest->buflen = src->buflen;
    dest->textlen = src->textlen;
    close_ctxt(src);
}

bool is_ctxt_full(const ctxt_spec *s) { return room_left(s) <= MIN_LINE_ROOM; }

void add_ctxt_line(void *opaque, const char *fmt, ...)
{
    ctxt_spec *s = static_cast<ctxt_spec *>(opaque);
    const ssize_t nleft = room_left(s);
    if (nleft <= MIN_LINE_ROOM) {
        LOG_STMT(WARN_level, "%s: PMT buffer may overflow, %zd bytes left\n", __func__, nleft);
        return;
    }
    char *line = s->buf.get() + s->textlen;
    va_list args;
    va_start(args, fmt);
    const int n = vsnprintf(line, static_cast<size_t>(nleft), fmt, args);
    va_end(args);
    // Clamped to the room and not to one less: a line that was cut keeps its zero byte, intended.
    s->textlen += std::clamp<ssize_t>(n, 0, nleft);
    INVARIANT(s->textlen < s->buflen);
    const size_t end = static_cast<size_t>(s->textlen++);
    s->buf[end] = '\n';
    s->line_ends[end] = true;
}

int cmp_ctxt(const ctxt_spec *a, const ctxt_spec *b)
{
    if (a->textlen != b->textlen)
        return 1;
    if (a->buf == nullptr || b->buf == nullptr)
        return 0;
    return memcmp(a->buf.get(), b->buf.get(), static_cast<size_t>(a->textlen));
}

void dump_ctxt(FILE *fp, const char *msg, const ctxt_spec *s)
{
    if (fp == nullptr || s->buf == nullptr || s->textlen <= 0)
        return;
    if (msg != nullptr)
        fprintf(fp, "%s\n", msg);
    write_lines(fp, s);
    fflush(fp);
}

void m_print(void *opaque, const char *fmt, ...)
{
    char line[128]{};
    va_list args;
    va_start(args, fmt);
    vsnprintf(line, sizeof line - 1, fmt, args);
    va_end(args);
    fprintf(static_cast<FILE *>(opaque), "%s\n", line);
}
