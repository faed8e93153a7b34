#include "report/logs.h"

#include "report/blocks.h"
#include "report/lines.h"
#include "report/record.h"

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t MAX_SOURCES = 256; // of a log; more are damage

// A log under way.
struct log_reading {
    report_run *run = nullptr;
    std::string path;
    std::map<std::string, judged_capture *, std::less<>> sources;
    judged_capture *latest = nullptr; // whose line came last
    line_event event;                 // of the line at hand
    uint64_t number = 0;              // of the line
    uint64_t blank = 0, foreign = 0, damaged = 0;
    uint64_t first_damaged = 0;
    // Not counted at a source yet.
    uint64_t loose_foreign = 0, loose_damaged = 0;
};

judged_capture *source_of(log_reading *log, std::string_view source)
{
    if (log->latest != nullptr && log->latest->tally.source == source)
        return log->latest;
    if (const auto found = log->sources.find(source); found != log->sources.end())
        return found->second;
    if (log->sources.size() >= MAX_SOURCES)
        return nullptr;
    judged_capture *capture = add_capture(log->run, log->path + " [" + std::string(source) + "]");
    capture->tally.file = log->path;
    capture->tally.source = source;
    log->sources.emplace(source, capture);
    return capture;
}

// Lines that belong to no source are those of the source before, or of the first.
void settle_loose_lines(log_reading *log)
{
    if (log->latest == nullptr)
        return;
    log->latest->tally.foreign += std::exchange(log->loose_foreign, 0);
    log->latest->tally.damaged += std::exchange(log->loose_damaged, 0);
}

void count_damage(log_reading *log)
{
    if (log->damaged++ == 0)
        log->first_damaged = log->number;
    ++log->loose_damaged;
}

void take_event(log_reading *log, const line_event &event)
{
    judged_capture *capture = source_of(log, event.source);
    if (capture == nullptr)
        return count_damage(log);
    log->latest = capture;
    alert_record alert;
    tally_event(&capture->tally, event, &alert);
    if (is_alert(event.kind))
        write_alert(&log->run->json, capture->tally, alert);
}

void take_line(log_reading *log, line_parser *parser, const text_line &line)
{
    line_event &event = log->event;
    ++log->number;
    line_class found = parse_line(parser, line.text, &event);
    if (found == line_class::event) {
        take_event(log, event);
        if (event.is_rescued || line.is_torn)
            count_damage(log);
    } else if (found == line_class::damaged || line.is_torn) {
        count_damage(log);
    } else if (found == line_class::foreign) {
        ++log->foreign;
        ++log->loose_foreign;
    } else {
        ++log->blank;
    }
    if (log->loose_damaged + log->loose_foreign > 0)
        settle_loose_lines(log);
}

void tell_of_lines(const log_reading &log)
{
    if (log.damaged > 0)
        tell(log.path, "has " + counted(log.damaged, "damaged line") + ", the first is line " +
                           std::to_string(log.first_damaged));
    if (log.foreign > 0)
        tell(log.path, "has " + counted(log.foreign, "line") + " of other kinds, left alone");
}

void set_end(capture_tally *tally, run_end end, const std::string &reason)
{
    tally->end = end;
    tally->reason = reason;
}

void close_log(log_reading *log, run_end end, const std::string &reason)
{
    tell_of_lines(*log);
    if (log->sources.empty()) {
        judged_capture *capture = add_capture(log->run, log->path);
        log->latest = capture;
        settle_loose_lines(log);
        // A run without alerts leaves a log with an empty line and nothing else.
        const bool is_nothing =
            end == run_end::log_read && (log->blank == 0 || log->damaged + log->foreign > 0);
        set_end(&capture->tally, is_nothing ? run_end::nothing : end,
                is_nothing ? "no line of an analyzer in it" : reason);
        return close_capture(log->run, capture);
    }
    for (const auto &[source, capture] : log->sources) {
        capture_tally &tally = capture->tally;
        const bool has_none =
            tally.has_stats && tally.programmes.empty() && total_alerts(tally) == 0;
        set_end(&tally, end, reason);
        if (end == run_end::log_read && has_none)
            set_end(&tally, run_end::nothing, "no programme");
        close_capture(log->run, capture);
    }
}

} // namespace

void read_log(report_run *run, const std::string &path)
{
    log_reading log;
    log.run = run;
    log.path = path;
    const int fd = open(log.path.c_str(), O_RDONLY | O_CLOEXEC);
    int rc = fd < 0 ? -errno : 1;
    if (fd >= 0) {
        line_blocks in(BLOCK_BYTES);
        const auto parser = std::make_unique<line_parser>();
        text_line line;
        while (g_interrupted == 0 && rc > 0) {
            rc = fill_blocks(&in, fd);
            while (next_line(&in, &line))
                take_line(&log, parser.get(), line);
        }
        close(fd);
    }
    const reading_end how = end_of_reading(rc);
    close_log(&log, how.end, how.reason);
}
