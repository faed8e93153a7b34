// Limits on alerts, and what a capture's end and its alerts come to.
//
// A limit is KIND=N or KIND/PID=N: at most N alerts of the kind (a name as in the lines, "all", or
// "damaged" for damaged lines of a log). "all" counts every alert and every damaged line.
#pragma once

#include "report/tally.h"

#include <string>
#include <vector>

// Exit statuses. The highest of all captures is that of the run.
enum report_status {
    STATUS_WITHIN = 0,
    STATUS_EXCEEDED = 1,
    STATUS_USAGE = 2, // or an output that could not be written
    STATUS_UNREADABLE = 3,
    STATUS_NOTHING = 4, // to analyse, or to judge a limit by
    STATUS_CUT_SHORT = 5,
};

struct alert_limit {
    std::string kind; // name of a kind, "all" or "damaged"
    int pid = -1;     // -1: of any
    uint64_t max = 0;
};

std::string limit_name(const alert_limit &limit); // KIND or KIND/PID

// Reads a limit. Returns an empty text, or what is wrong with it.
std::string parse_limit(std::string_view text, alert_limit *limit);

// Reads a file of limits, one a line; empty lines and what follows "#" are let pass. Returns an
// empty text, or what is wrong with it and where.
std::string read_limits(const std::string &path, std::vector<alert_limit> *limits);

// Adds a limit in place of an earlier one of its name.
void add_limit(std::vector<alert_limit> *limits, const alert_limit &limit);

struct limit_result {
    alert_limit limit;
    uint64_t count = 0;
    std::string_view unjudged{}; // why a count of 0 says nothing; empty: it does
    bool is_exceeded() const { return count > limit.max; }
};

struct capture_verdict {
    int status = STATUS_WITHIN;
    std::vector<limit_result> results{}; // of each limit
};

capture_verdict judge(const capture_tally &tally, const std::vector<alert_limit> &limits);

// What an end comes to by itself.
int status_of(run_end end);

// Whether all that is wrong is a limit that nothing tells of.
bool is_unjudged(const capture_tally &tally, const capture_verdict &verdict);

// "1 alert", "2 alerts".
std::string counted(uint64_t count, const char *what);

// The verdict in one line, behind the capture's name.
std::string verdict_text(const capture_tally &tally, const capture_verdict &verdict);

// The alerts by kind: "3 alerts (2 CC-BRK, 1 PCR-FREQ)".
std::string alerts_text(const capture_tally &tally);
