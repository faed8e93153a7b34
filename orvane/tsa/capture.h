// Reading a capture: 188-byte packets, 100 at a time, from a file or a pipe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

constexpr size_t READ_PKTS = 100; // packets handed out at a time

// An open capture. Blocks larger than 100 packets are read underneath where the input has them,
// into a static buffer: there is one capture at a time.
struct capture {
    int fd = -1;
    int error = 0;    // error number of a failed read; the capture then ends
    size_t start = 0; // what is buffered and not handed out yet
    size_t end = 0;

    capture() = default;
    capture(const capture &) = delete;
    capture &operator=(const capture &) = delete;
    ~capture();
};

// Opens a capture. Returns 0 or the error number.
int open_capture(capture *cap, const char *path);

// Moves to a byte offset. Returns 0 or the error number (a pipe cannot be moved in).
int seek_capture(capture *cap, off_t offset);

// Hands out the next 100 packets, or what whole packets are left at the end of the input; waits for
// a pipe no longer than until they are there. Returns their number, 0 at the end, and in `pkts`
// where they are until the next call. A fragment of a packet at the end is dropped.
size_t next_packets(capture *cap, const uint8_t **pkts);
