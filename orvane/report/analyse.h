// Captures through the engine, several at a time.
#pragma once

#include "report/run.h"
#include "tsanalyze/tsanalyze.h"

struct analyse_options {
    tsan_config settings;
    unsigned jobs = 1; // captures at a time
};

// Analyses the captures. What goes wrong with one of them, its process included, concerns no other.
// SIGINT and SIGTERM (see g_interrupted) end all of them, with what is known so far.
void analyse_captures(report_run *run, const std::vector<std::string> &paths,
                      const analyse_options &options);
