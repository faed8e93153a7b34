#include "report/merge.h"

#include "report/blocks.h"
#include "report/record.h"

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace {

constexpr size_t RECORD_BYTES = 16 << 20; // of a record at most: a summary tells of every PID

struct merged_capture {
    judged_capture *capture = nullptr;
    nlohmann::json summary; // null: none came
};

struct record_reading {
    report_run *run = nullptr;
    std::string path;
    std::map<std::string, merged_capture> captures; // by their names in this file
    std::vector<merged_capture *> order;
    uint64_t number = 0;
    uint64_t damaged = 0, first_damaged = 0;
};

merged_capture *capture_of(record_reading *in, const std::string &name)
{
    merged_capture &merged = in->captures[name];
    if (merged.capture == nullptr) {
        merged.capture = add_capture(in->run, name);
        in->order.push_back(&merged);
    }
    return &merged;
}

bool take_alert(record_reading *in, const nlohmann::json &record, const std::string &name)
{
    recorded_alert recorded;
    if (!read_alert(record, &recorded))
        return false;
    capture_tally &tally = capture_of(in, name)->capture->tally;
    tally.source = recorded.line.source;
    tally_alert(&tally, recorded.alert);
    write_alert(&in->run->json, tally, recorded.alert);
    return true;
}

bool take_summary(record_reading *in, nlohmann::json *record, const std::string &name)
{
    capture_tally trial;
    std::vector<alert_limit> limits;
    if (!read_summary(*record, &trial, &limits))
        return false;
    capture_of(in, name)->summary = std::move(*record);
    return true;
}

bool take_record(record_reading *in, std::string_view line)
{
    nlohmann::json record = nlohmann::json::parse(line, nullptr, false);
    if (!record.is_object())
        return false;
    const auto word = [&record](const char *name) {
        const auto found = record.find(name);
        return found != record.end() && found->is_string() ? found->get<std::string>() : "";
    };
    const std::string kind = word("record");
    const std::string name = word("capture");
    if (name.empty())
        return false;
    return kind == "alert" ? take_alert(in, record, name)
                           : kind == "summary" && take_summary(in, &record, name);
}

// A summary knows more than the alerts that came with it, which may be fewer.
void close_merged(record_reading *in, merged_capture *merged, bool is_interrupted)
{
    capture_tally &tally = merged->capture->tally;
    std::vector<alert_limit> limits;
    if (merged->summary.is_null()) {
        tally.end = is_interrupted ? run_end::interrupted : run_end::killed;
        tally.reason = is_interrupted ? "interrupted" : "its record has no end";
    } else {
        const uint64_t recorded = alert_lines(tally);
        read_summary(merged->summary, &tally, &limits);
        if (recorded != alert_lines(tally))
            tell(tally.name, "has records of " + std::to_string(recorded) + " alerts out of " +
                                 std::to_string(alert_lines(tally)));
    }
    close_capture(in->run, merged->capture, limits);
}

void take_lines(record_reading *in, line_blocks *blocks)
{
    text_line line;
    while (next_line(blocks, &line)) {
        ++in->number;
        if (line.text.find_first_not_of(" \r") == line.text.npos)
            continue;
        if (!line.is_torn && take_record(in, line.text))
            continue;
        if (in->damaged++ == 0)
            in->first_damaged = in->number;
    }
}

// Stands for what was not read.
void add_unread(record_reading *in, run_end end, const std::string &reason)
{
    judged_capture *capture = add_capture(in->run, in->path);
    capture->tally.end = end;
    capture->tally.reason = reason;
    close_capture(in->run, capture);
}

void close_records(record_reading *in, const reading_end &how)
{
    for (merged_capture *merged : in->order)
        close_merged(in, merged, how.end == run_end::interrupted);
    if (in->damaged > 0) {
        tell(in->path, "has " + counted(in->damaged, "line") + " that " +
                           (in->damaged == 1 ? "is no record" : "are no records") +
                           ", the first is line " + std::to_string(in->first_damaged));
    }
    if (how.end != run_end::log_read)
        add_unread(in, how.end, how.reason);
    else if (in->damaged > 0)
        add_unread(in, run_end::unreadable, "not all of it is a record");
    else if (in->order.empty())
        add_unread(in, run_end::nothing, "no record in it");
}

} // namespace

void read_records(report_run *run, const std::string &path)
{
    record_reading in;
    in.run = run;
    in.path = path;
    const int fd = open(in.path.c_str(), O_RDONLY | O_CLOEXEC);
    int rc = fd < 0 ? -errno : 1;
    if (fd >= 0) {
        line_blocks blocks(RECORD_BYTES);
        while (g_interrupted == 0 && rc > 0) {
            rc = fill_blocks(&blocks, fd);
            take_lines(&in, &blocks);
        }
        close(fd);
    }
    close_records(&in, end_of_reading(rc));
}
