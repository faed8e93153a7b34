// What the parts of a run share: the captures known so far and where their records go.
#pragma once

#include "report/output.h"
#include "report/tally.h"
#include "report/verdict.h"

#include <csignal>
#include <deque>
#include <set>

struct judged_capture {
    capture_tally tally;
    capture_verdict verdict;
};

struct report_run {
    std::deque<judged_capture> captures; // in the order they were named; they do not move
    std::set<std::string> names;
    std::vector<alert_limit> limits;
    output_file json;
    bool wants_bins = false;
    int status = STATUS_WITHIN; // the highest so far
};

extern volatile sig_atomic_t g_interrupted; // how often the user asked for the end

// Adds a capture. One whose name is taken gets a number behind it, and that is told.
judged_capture *add_capture(report_run *run, const std::string &name);

// Judges a capture that is known to its end, and writes its summary. Limits of its own count when
// the run has none.
void close_capture(report_run *run, judged_capture *capture,
                   const std::vector<alert_limit> &own_limits = {});

void raise_status(report_run *run, int status);

struct reading_end {
    run_end end; // log_read, unreadable or interrupted
    std::string reason;
};
// How it ended with a log or record, by the latest of its open(2) and read(2): 1 when there may be
// more, 0 at the end, or minus the error number.
reading_end end_of_reading(int rc);

// Tells of a capture or log that something is wrong, on standard error.
void tell(const std::string &name, const std::string &what);
