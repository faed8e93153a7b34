#include "report/run.h"

#include "report/record.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

volatile sig_atomic_t g_interrupted;

judged_capture *add_capture(report_run *run, const std::string &name)
{
    std::string free_name = name;
    for (unsigned n = 2; !run->names.insert(free_name).second; ++n)
        free_name = name + " (" + std::to_string(n) + ")";
    if (free_name != name)
        tell(name, "is there already, this one is called " + free_name);
    judged_capture &capture = run->captures.emplace_back();
    capture.tally.name = free_name;
    capture.tally.file = name;
    capture.tally.wants_bins = run->wants_bins;
    capture.tally.wants_time = run->wants_bins || is_open(run->json);
    return &capture;
}

void close_capture(report_run *run, judged_capture *capture,
                   const std::vector<alert_limit> &own_limits)
{
    capture->verdict = judge(capture->tally, run->limits.empty() ? own_limits : run->limits);
    raise_status(run, capture->verdict.status);
    write_summary(&run->json, capture->tally, capture->verdict);
}

void raise_status(report_run *run, int status) { run->status = std::max(run->status, status); }

reading_end end_of_reading(int rc)
{
    if (rc > 0 || rc == -EINTR)
        return {run_end::interrupted, "interrupted"};
    if (rc < 0)
        return {run_end::unreadable, std::string("cannot be read: ") + strerror(-rc)};
    return {run_end::log_read, ""};
}

void tell(const std::string &name, const std::string &what)
{
    fprintf(stderr, "orvreport: %s %s\n", name.c_str(), what.c_str());
}
