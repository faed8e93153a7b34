// The picture of a run: one page that needs nothing else.
#pragma once

#include "report/run.h"

// Writes the page. It stays below a megabyte: what finds no room is named in it.
void write_page(output_file *out, const report_run &run);
