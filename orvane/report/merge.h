// Records of earlier runs, from many machines perhaps.
#pragma once

#include "report/run.h"

// Reads a file of records as if its captures were analysed here. Where the
// run has no limits, those of the record count.
void read_records(report_run *run, const std::string &path);
