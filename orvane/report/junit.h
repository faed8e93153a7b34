// The verdict as JUnit XML, which build servers show.
#pragma once

#include "report/run.h"

// Writes a suite for each capture, with a case for its end and one for each limit.
void write_junit(output_file *out, const report_run &run);
