// The command line and the run's settings.
#pragma once

#include "tsanalyze/tsanalyze.h"

#include <cstdint>
#include <sys/types.h>

// Settings of the run.
struct config {
    char fpath[256];      // capture file
    int32_t verbosity;    // number of -v
    tsan_config tsa;      // settings of the engine
    off_t start_rec;      // record (packet) to start at, from 1; 0: the first
    uint64_t max_records; // records to process; 0: all
};

extern config g_cfg;

// Sets the defaults.
void init_config();

// Reads the command line into g_cfg: the settings file of -C first, everything else over it.
// Returns 0, -1 when the settings file failed, 22 for an invalid value of -Y, -k or -A, 34 for a
// value of -r or -s out of range. Ends the process for help, version, an unknown option or a
// missing file name.
int parse_options(int argc, char *argv[]);

// Writes the help text to standard error and ends the process.
[[noreturn]] void usage(const char *app, int exit_code);
