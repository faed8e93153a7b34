// Text in large blocks, taken apart into lines in constant memory.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

constexpr size_t BLOCK_BYTES = 128 << 10; // small enough for the second-level cache

// A line longer than the buffer keeps its last bytes only and is marked as torn.
struct line_blocks {
    explicit line_blocks(size_t bytes);

    std::unique_ptr<char[]> buf;
    size_t size;
    size_t start = 0; // what is buffered and not handed out yet
    size_t end = 0;
    size_t scanned = 0;   // no line feed before here
    bool is_torn = false; // the front of the line at `start` is lost
    bool at_end = false;  // nothing more will come
};

struct text_line {
    std::string_view text; // without line feed; valid until blocks_room
    bool is_torn = false;
    bool is_ended = true; // a line feed followed
};

// Where to put what is read next; never empty. Then tell how much it was, 0 at the end of the text.
std::span<char> blocks_room(line_blocks *in);
void blocks_filled(line_blocks *in, size_t bytes);

// Hands out the next line. False when more must be read first or, after the end, none is left.
bool next_line(line_blocks *in, text_line *line);

// Reads a descriptor once into the blocks. Returns 1 (also when a signal came first), 0 at the end,
// or minus the error number.
int fill_blocks(line_blocks *in, int fd);
