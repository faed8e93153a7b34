// Text snapshots of printed tables, and the print callbacks that fill or show them.
#pragma once

#include <cstdio>
#include <memory>
#include <sys/types.h>

// A text buffer of fixed capacity. It holds the lines as they were printed, control characters
// included; each ends with a line feed of the buffer's own. It is not zero-terminated, and a line
// that was cut keeps its zero byte inside the text.
struct ctxt_spec {
    std::unique_ptr<char[]> buf; // zero-filled, `buflen` bytes; null when closed
    ssize_t buflen = 0;
    ssize_t textlen = 0;               // always below buflen
    std::unique_ptr<bool[]> line_ends; // where in the text a line feed ends a line
};

// Gives the buffer room for `max_size` bytes. Returns 0, or -1 without memory.
int open_ctxt(ctxt_spec *s, ssize_t max_size);

void close_ctxt(ctxt_spec *s);

// Moves the text of `src`, which is closed then, to `dest`.
void replace_ctxt(ctxt_spec *dest, ctxt_spec *src);

// Print callback: appends one line to the ctxt_spec behind `opaque`. A line is cut to the room
// left; with 15 bytes or less left it is dropped with a warning.
void add_ctxt_line(void *opaque, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Whether a line was or would be dropped for want of room.
bool is_ctxt_full(const ctxt_spec *s);

// 0 when the texts are equal, or equally long and one of them is closed.
int cmp_ctxt(const ctxt_spec *a, const ctxt_spec *b);

// Writes the text, after `msg` (may be null) on a line of its own, to a stream (null: nowhere).
// Nothing at all is written for an empty one. Control characters within a line are written as
// "\xNN", a backslash as two: what comes from a capture makes no lines of its own in a log.
void dump_ctxt(FILE *fp, const char *msg, const ctxt_spec *s);

// Print callback: writes one line of at most 126 characters to the stream behind `opaque`.
void m_print(void *opaque, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
