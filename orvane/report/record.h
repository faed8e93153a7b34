// The record of runs: JSON Lines, one object for each alert and one for each capture.
// docs/orvreport.schema.json tells their fields. What was not measured is null.
#pragma once

#include "report/output.h"
#include "report/tally.h"
#include "report/verdict.h"

#include <nlohmann/json_fwd.hpp>

// Write one record, if the output is wanted.
void write_alert(output_file *out, const capture_tally &tally, const alert_record &alert);
void write_summary(output_file *out, const capture_tally &tally, const capture_verdict &verdict);

// An alert read back. Its texts point into the record.
struct recorded_alert {
    line_event line;
    alert_record alert{&line};
};

// Read a record back. False when it is none; what was written to the result then means nothing.
bool read_alert(const nlohmann::json &record, recorded_alert *result);
bool read_summary(const nlohmann::json &record, capture_tally *tally,
                  std::vector<alert_limit> *limits);
