// One capture through the engine, in a process of its own.
#pragma once

#include "report/tally.h"
#include "tsanalyze/tsanalyze.h"

#include <atomic>
#include <string>

// Memory that the child writes and its parent reads, also after the child is gone.
struct child_progress {
    std::atomic<uint64_t> packets; // handed to the engine, the current one included
    std::atomic<run_end> end;      // not_begun: the child did not come to its end
    std::atomic<int> error;        // error number, when it was unreadable
};

// Analyses a capture and ends the process. The machine lines go to standard output, complaints of
// the engine to standard error.
[[noreturn]] void analyse_in_child(const tsan_config &settings, const std::string &path,
                                   child_progress *progress);
