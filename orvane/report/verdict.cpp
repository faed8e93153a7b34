#include "report/verdict.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <fstream>

namespace {

bool parse_whole(std::string_view text, uint64_t *value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

std::string known_kinds()
{
    std::string names = "all, damaged";
    for (size_t i = 0; i < ALERT_KINDS; ++i)
        names.append(", ").append(info_of(static_cast<line_kind>(i)).name);
    return names;
}

std::string_view trim(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r";
    const size_t from = std::min(text.find_first_not_of(blanks), text.size());
    return text.substr(from, text.find_last_not_of(blanks) + 1 - from);
}

// Alerts of a PID and a kind; an empty name is any kind.
uint64_t count_lanes(const capture_tally &tally, std::string_view kind, int pid)
{
    uint64_t count = 0;
    for (const auto &[key, lane] : tally.lanes)
        if (key.pid == pid && (kind.empty() || info_of(key.kind).name == kind))
            count += lane.count;
    return count;
}

uint64_t count_for(const capture_tally &tally, const alert_limit &limit)
{
    if (limit.pid >= 0)
        return count_lanes(tally, limit.kind == "all" ? "" : limit.kind, limit.pid);
    if (limit.kind == "damaged")
        return tally.damaged;
    if (limit.kind == "all")
        return total_alerts(tally) + tally.damaged;
    line_kind kind{};
    return find_alert_kind(limit.kind, &kind) ? alerts_of(tally, kind) : 0;
}

bool is_checked(const check_record &checks, line_kind kind)
{
    switch (kind) {
    case line_kind::cc_brk:
    case line_kind::cc_rst:
    case line_kind::cc_mlr:
        return checks.counters;
    case line_kind::pcr_freq:
        return checks.pcr_interval_ms != 0;
    case line_kind::pcr_delta:
        return checks.pcr_distance_ms != 0;
    case line_kind::av_deltaplus:
    case line_kind::av_delta0:
        return checks.av_distance_ms != 0;
    default:
        return true;
    }
}

// Why that no alert was found for a limit says nothing; empty: it does.
std::string_view why_unjudged(const capture_tally &tally, const alert_limit &limit)
{
    line_kind kind{};
    const bool is_kind = find_alert_kind(limit.kind, &kind);
    if (is_kind && tally.checks && !is_checked(*tally.checks, kind))
        return "its check was off";
    if (!has_counters_alone(tally))
        return "";
    if (is_kind && kind == line_kind::pmt_diff)
        return "STAT lines do not count it";
    const uint64_t found = is_kind ? alerts_of(tally, kind) : total_alerts(tally);
    return limit.pid >= 0 && found > 0 ? "STAT lines name no PID" : "";
}

} // namespace

std::string counted(uint64_t count, const char *what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string limit_name(const alert_limit &limit)
{
    return limit.pid < 0 ? limit.kind : limit.kind + "/" + std::to_string(limit.pid);
}

std::string parse_limit(std::string_view text, alert_limit *limit)
{
    const std::string shown(text.substr(0, 80));
    const size_t equals = text.rfind('=');
    if (equals == text.npos)
        return "limit \"" + shown + "\" is not of the form KIND=N or KIND/PID=N";
    const std::string_view name = trim(text.substr(0, equals));
    const size_t slash = name.find('/');
    limit->kind = trim(name.substr(0, slash));
    line_kind kind{};
    const bool is_damaged = limit->kind == "damaged";
    if (limit->kind != "all" && !is_damaged && !find_alert_kind(limit->kind, &kind))
        return "limit \"" + shown + "\" names an unknown kind; known are " + known_kinds();
    uint64_t pid = 0;
    limit->pid = -1;
    if (slash != name.npos) {
        if (is_damaged)
            return "limit \"" + shown + "\": damaged lines have no PID";
        if (!parse_whole(trim(name.substr(slash + 1)), &pid) || pid > MAX_PID)
            return "limit \"" + shown + "\" names no PID (0 to 8191)";
        limit->pid = static_cast<int>(pid);
    }
    if (!parse_whole(trim(text.substr(equals + 1)), &limit->max))
        return "limit \"" + shown + "\" has no number";
    return "";
}

std::string read_limits(const std::string &path, std::vector<alert_limit> *limits)
{
    std::ifstream in(path);
    std::string line;
    for (size_t number = 1; std::getline(in, line); ++number) {
        const std::string_view text = trim(std::string_view(line).substr(0, line.find('#')));
        alert_limit limit;
        if (text.empty())
            continue;
        if (const std::string fault = parse_limit(text, &limit); !fault.empty())
            return path + ", line " + std::to_string(number) + ": " + fault;
        add_limit(limits, limit);
    }
    return in.eof() && !in.bad() ? "" : "cannot read limits from " + path + ": " + strerror(errno);
}

void add_limit(std::vector<alert_limit> *limits, const alert_limit &limit)
{
    const auto same = std::find_if(limits->begin(), limits->end(), [&](const alert_limit &other) {
        return other.kind == limit.kind && other.pid == limit.pid;
    });
    if (same != limits->end())
        *same = limit;
    else
        limits->push_back(limit);
}

int status_of(run_end end)
{
    switch (end) {
    case run_end::complete:
    case run_end::log_read:
        return STATUS_WITHIN;
    case run_end::nothing:
        return STATUS_NOTHING;
    case run_end::unreadable:
        return STATUS_UNREADABLE;
    default:
        return STATUS_CUT_SHORT;
    }
}

capture_verdict judge(const capture_tally &tally, const std::vector<alert_limit> &limits)
{
    capture_verdict verdict{.status = status_of(tally.end)};
    bool is_judged = true;
    for (const alert_limit &limit : limits) {
        limit_result result{limit, count_for(tally, limit)};
        if (result.count == 0)
            result.unjudged = why_unjudged(tally, limit);
        is_judged = is_judged && result.unjudged.empty();
        if (result.is_exceeded())
            verdict.status = std::max<int>(verdict.status, STATUS_EXCEEDED);
        verdict.results.push_back(std::move(result));
    }
    if (!is_judged && verdict.status == STATUS_WITHIN)
        verdict.status = STATUS_NOTHING;
    return verdict;
}

bool is_unjudged(const capture_tally &tally, const capture_verdict &verdict)
{
    return verdict.status == STATUS_NOTHING && status_of(tally.end) == STATUS_WITHIN;
}

std::string alerts_text(const capture_tally &tally)
{
    const uint64_t total = total_alerts(tally);
    if (total == 0)
        return "no alerts";
    std::string text = counted(total, "alert") + " (";
    const char *separator = "";
    for (size_t i = 0; i < ALERT_KINDS; ++i) {
        const auto kind = static_cast<line_kind>(i);
        const uint64_t count = alerts_of(tally, kind);
        if (count == 0)
            continue;
        text.append(separator).append(std::to_string(count)).append(" ").append(info_of(kind).name);
        separator = ", ";
    }
    return text + ")";
}

std::string verdict_text(const capture_tally &tally, const capture_verdict &verdict)
{
    std::string text;
    for (const limit_result &result : verdict.results)
        if (result.is_exceeded())
            text += (text.empty() ? "EXCEEDED: " : ", ") + limit_name(result.limit) + " " +
                    std::to_string(result.count) + " > " + std::to_string(result.limit.max);
    for (const limit_result &result : verdict.results)
        if (!result.unjudged.empty())
            text.append(text.empty() ? "" : "; ")
                .append("NOT JUDGED: " + limit_name(result.limit) + ", ")
                .append(result.unjudged);
    const bool is_cut = status_of(tally.end) != STATUS_WITHIN;
    if (text.empty() && !is_cut)
        text = verdict.results.empty() ? "no limits" : "within limits";
    if (is_cut)
        text = tally.reason + (text.empty() ? "" : "; " + text);
    text += "; " + alerts_text(tally);
    if (tally.damaged > 0)
        text += "; " + counted(tally.damaged, "damaged line");
    return text;
}
