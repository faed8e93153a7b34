#include "report/junit.h"

#include "report/templates.h"
#include "report/text.h"

#include <kainjow/mustache.hpp>

namespace {

namespace mustache = kainjow::mustache;

struct test_counts {
    size_t tests = 0, failures = 0, errors = 0;
};

void set_counts(mustache::data *data, const test_counts &counts)
{
    data->set("tests", std::to_string(counts.tests));
    data->set("failures", std::to_string(counts.failures));
    data->set("errors", std::to_string(counts.errors));
}

mustache::data suite_of(const judged_capture &capture, test_counts *total)
{
    const auto &[tally, verdict] = capture;
    test_counts counts{.tests = 1 + verdict.results.size()};
    mustache::data suite;
    suite.set("name", clean_text(tally.name));
    suite.set("text", clean_text(verdict_text(tally, verdict)));
    // Of a log it is not known how the run ended.
    suite.set("ending", tally.checks ? "analysed to its end" : "read to its end");
    if (status_of(tally.end) != STATUS_WITHIN) {
        counts.errors = 1;
        suite.set("reason", clean_text(tally.reason));
    }
    mustache::data limits(mustache::data::type::list);
    for (const limit_result &result : verdict.results) {
        mustache::data entry;
        entry.set("limit", limit_name(result.limit) + "=" + std::to_string(result.limit.max));
        if (!result.unjudged.empty()) {
            ++counts.errors;
            entry.set("error", "not judged: " + std::string(result.unjudged));
        } else if (result.is_exceeded()) {
            ++counts.failures;
            entry.set("failure", std::to_string(result.count) + " " + limit_name(result.limit) +
                                     ", at most " + std::to_string(result.limit.max));
        }
        limits.push_back(entry);
    }
    suite.set("limits", limits);
    set_counts(&suite, counts);
    total->tests += counts.tests;
    total->failures += counts.failures;
    total->errors += counts.errors;
    return suite;
}

} // namespace

void write_junit(output_file *out, const report_run &run)
{
    test_counts total;
    mustache::data suites(mustache::data::type::list);
    for (const judged_capture &capture : run.captures)
        suites.push_back(suite_of(capture, &total));
    mustache::data data;
    data.set("suites", suites);
    set_counts(&data, total);
    write_output(out, mustache::mustache(TEMPLATE_JUNIT).render(data));
}
