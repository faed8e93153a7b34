// The command line of orvreport.
#pragma once

#include "report/verdict.h"
#include "tsanalyze/tsanalyze.h"

#include <string>
#include <vector>

struct report_options {
    std::vector<std::string> captures, logs, records; // standard input is /dev/stdin
    tsan_config settings{};
    unsigned jobs = 1;
    std::vector<alert_limit> limits;
    std::string json, junit, html; // outputs; empty: none, "-": standard output
    bool is_quiet = false;         // no lines of verdict
};

enum class options_result { run, done, wrong };

// Reads the command line. Help and version are done with; what is wrong was told.
options_result parse_report_options(int argc, char *argv[], report_options *options);
