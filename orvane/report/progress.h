// The line that tells on a terminal how far the analysis is.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

struct progress_line {
    bool is_wanted = false;
    size_t total = 0;         // captures
    uint64_t total_bytes = 0; // of all that have a size
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point shown{};
};

// Wanted when standard error is a terminal.
progress_line begin_progress(size_t total, uint64_t total_bytes);

// Shows how far it is, a few times a second.
void show_progress(progress_line *line, size_t done, uint64_t bytes);

void end_progress(progress_line *line);
