// Access logs of earlier runs and of live hosts.
#pragma once

#include "report/run.h"

// Reads a log. Every source in it is a capture of its own, called
// "FILE [SOURCE]".
void read_log(report_run *run, const std::string &path);
