// The charts of a page: where bars, dots and their labels stand.
#pragma once

#include "report/tally.h"

#include <kainjow/mustache.hpp>

// The timelines of a capture: one by stream time, one by packet for alerts without it. Empty charts
// are left out.
kainjow::mustache::data timelines_of(const capture_tally &tally);

// The distances of its alerts, a plot for each check.
kainjow::mustache::data plots_of(const capture_tally &tally);
