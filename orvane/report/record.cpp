#include "report/record.h"

#include "report/lines.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

namespace {

typedef nlohmann::ordered_json ordered;
typedef nlohmann::json json;

// Texts of captures and logs need not be UTF-8.
void write_line(output_file *out, const ordered &record)
{
    write_output(out, record.dump(-1, ' ', false, ordered::error_handler_t::replace) + '\n');
}

ordered known(int index) { return index < 0 ? ordered() : ordered(index); }

template <class T>
ordered known(const std::optional<T> &value)
{
    return value ? ordered(*value) : ordered();
}

ordered known(std::string_view text) { return text.empty() ? ordered() : ordered(text); }

// The fields of an alert that stand outside of "values".
bool stands_outside(std::string_view name)
{
    return name == "pid" || name == "programme" || name == "stream";
}

// ---- Alerts come by the million: their few members are put together here

void put_text(std::string *out, std::string_view text)
{
    const bool is_plain = std::all_of(text.begin(), text.end(), [](char c) {
        return c >= ' ' && c <= '~' && c != '"' && c != '\\';
    });
    if (is_plain)
        out->append("\"").append(text).append("\"");
    else
        out->append(ordered(text).dump(-1, ' ', false, ordered::error_handler_t::replace));
}

void put_text_or_null(std::string *out, std::string_view text)
{
    if (text.empty())
        out->append("null");
    else
        put_text(out, text);
}

template <class T>
void put_number(std::string *out, T value)
{
    char digits[24];
    const auto last = std::to_chars(digits, digits + sizeof digits, value);
    out->append(digits, last.ptr);
}

void put_number_or_null(std::string *out, bool is_known, uint64_t value)
{
    if (is_known)
        put_number(out, value);
    else
        out->append("null");
}

void put_index(std::string *out, int index)
{
    put_number_or_null(out, index >= 0, static_cast<uint64_t>(index));
}

void put_value(std::string *out, const field_info &field, uint64_t value)
{
    if (field.type == field_type::stamp)
        out->append(value == 0 ? "\"pts\"" : "\"dts\"");
    else if (field.type == field_type::signed_number)
        put_number(out, static_cast<int64_t>(value));
    else
        put_number(out, value);
}

void put_values(std::string *out, const line_event &event)
{
    const auto &fields = info_of(event.kind).fields;
    const char *separator = "\"";
    for (size_t i = 0; i < fields.size(); ++i) {
        if (fields[i].name == nullptr || stands_outside(fields[i].name))
            continue;
        out->append(separator).append(fields[i].name).append("\":");
        put_value(out, fields[i], event.values[i]);
        separator = ",\"";
    }
}

ordered tracks_of(const programme_record &programme)
{
    ordered tracks = ordered::array();
    for (const track_record &track : programme.tracks)
        tracks.push_back({{"index", tracks.size()},
                          {"pid", track.pid},
                          {"class", std::string(1, track.letter)},
                          {"type", track.type},
                          {"packets", known(track.packets)},
                          {"packets_analysed", known(track.analysed)}});
    return tracks;
}

constexpr const char *COUNTERS[] = {"packets",         "packets_analysed", "video_packets",
                                    "video_analysed",  "audio_packets",    "audio_analysed",
                                    "private_packets", "private_analysed"};

ordered counters_of(const programme_record &programme)
{
    ordered counters;
    for (size_t i = 0; i < programme.counters.size() && programme.has_counters; ++i)
        counters[COUNTERS[i]] = programme.counters[i];
    return counters;
}

ordered average_of(const std::optional<average_record> &average)
{
    if (!average || average->count == 0)
        return {};
    return {{"pid", known(average->pid)},
            {"count", average->count},
            {"sum_ms", average->sum},
            {"min_ms", average->min},
            {"max_ms", average->max},
            {"mean_ms", static_cast<double>(average->sum) / static_cast<double>(average->count)}};
}

ordered counted_of(const std::array<std::optional<uint64_t>, ALERT_KINDS> &counted)
{
    ordered alerts;
    for (size_t i = 0; i < ALERT_KINDS; ++i)
        if (counted[i])
            alerts[std::string(info_of(static_cast<line_kind>(i)).name)] = *counted[i];
    return alerts;
}

ordered programmes_of(const capture_tally &tally)
{
    ordered programmes = ordered::array();
    for (const programme_record &programme : tally.programmes)
        programmes.push_back({{"index", programmes.size()},
                              {"pmt_pid", known(programme.pmt_pid)},
                              {"tracks", tracks_of(programme)},
                              {"counters", counters_of(programme)},
                              {"av_distance", average_of(programme.av_distance)},
                              {"pcr_distance", average_of(programme.pcr_distance)},
                              {"pcr_interval", average_of(programme.pcr_interval)},
                              {"engine_alerts", counted_of(programme.alerts)}});
    return programmes;
}

ordered checks_of(const capture_tally &tally)
{
    if (!tally.checks)
        return {};
    const auto threshold = [](uint64_t ms) { return ms == 0 ? ordered() : ordered(ms); };
    return {{"av_distance_ms", threshold(tally.checks->av_distance_ms)},
            {"pcr_distance_ms", threshold(tally.checks->pcr_distance_ms)},
            {"pcr_interval_ms", threshold(tally.checks->pcr_interval_ms)},
            {"counters", tally.checks->counters},
            {"iso", tally.checks->iso}};
}

ordered alerts_of(const capture_tally &tally)
{
    ordered alerts = ordered::object();
    for (size_t i = 0; i < ALERT_KINDS; ++i)
        alerts[std::string(info_of(static_cast<line_kind>(i)).name)] = tally.counts[i];
    return alerts;
}

ordered lanes_of(const capture_tally &tally)
{
    ordered lanes = ordered::array();
    for (const auto &[key, lane] : tally.lanes)
        lanes.push_back({{"kind", info_of(key.kind).name},
                         {"pid", known(key.pid)},
                         {"count", lane.count},
                         {"max_ms", has_distance(key.kind) ? ordered(lane.max) : ordered()}});
    return lanes;
}

ordered limits_of(const capture_verdict &verdict)
{
    ordered limits = ordered::array();
    for (const limit_result &result : verdict.results) {
        const bool is_judged = result.unjudged.empty();
        limits.push_back({{"kind", result.limit.kind},
                          {"pid", known(result.limit.pid)},
                          {"max", result.limit.max},
                          {"count", is_judged ? ordered(result.count) : ordered()},
                          {"exceeded", is_judged ? ordered(result.is_exceeded()) : ordered()},
                          {"reason", known(result.unjudged)}});
    }
    return limits;
}

// ---- Reading

// Members of a record; a wrong type throws, as the library does.
template <class T>
std::optional<T> member(const json &record, const char *name)
{
    const auto found = record.find(name);
    return found == record.end() || found->is_null() ? std::nullopt
                                                     : std::optional<T>(found->get<T>());
}

std::string_view text_member(const json &record, const char *name)
{
    const auto found = record.find(name);
    return found == record.end() || found->is_null()
               ? std::string_view()
               : std::string_view(found->get_ref<const std::string &>());
}

uint64_t field_value(const json &record, const field_info &field)
{
    const json &holder = stands_outside(field.name) ? record : record.at("values");
    if (field.type == field_type::stamp)
        return holder.at(field.name).get<std::string>() == "dts" ? 1 : 0;
    if (field.type == field_type::signed_number)
        return static_cast<uint64_t>(holder.at(field.name).get<int64_t>());
    return holder.at(field.name).get<uint64_t>();
}

void read_alert_fields(const json &record, recorded_alert *result)
{
    line_event &line = result->line;
    alert_record &alert = result->alert;
    const auto &fields = info_of(line.kind).fields;
    for (size_t i = 0; i < fields.size(); ++i)
        if (fields[i].name != nullptr)
            line.values[i] = field_value(record, fields[i]);
    line.time = text_member(record, "time");
    line.source = text_member(record, "source");
    alert.programme = member<int>(record, "programme").value_or(-1);
    alert.stream = member<int>(record, "stream").value_or(-1);
    alert.pid = member<int>(record, "pid").value_or(-1);
    alert.stream_time_s = member<double>(record, "stream_time_s");
    if (const uint64_t *distance = field_of(line, "delta_ms"))
        alert.distance = *distance;
}

average_record read_average(const json &record)
{
    return {member<int>(record, "pid").value_or(-1), record.at("count"), record.at("sum_ms"),
            record.at("min_ms"), record.at("max_ms")};
}

std::optional<average_record> read_average(const json &record, const char *name)
{
    const json &average = record.at(name);
    return average.is_null() ? std::nullopt : std::optional(read_average(average));
}

void read_counted(const json &record, std::array<std::optional<uint64_t>, ALERT_KINDS> *counted)
{
    for (const auto &[name, count] : record.at("engine_alerts").items())
        if (line_kind kind{}; find_alert_kind(name, &kind))
            (*counted)[index_of(kind)] = count.get<uint64_t>();
}

void read_tracks(const json &record, std::vector<track_record> *tracks)
{
    for (const json &track : record.at("tracks")) {
        const std::string letter = track.at("class");
        tracks->push_back({.pid = track.at("pid"),
                           .letter = letter.empty() ? '?' : letter[0],
                           .packets = member<uint64_t>(track, "packets"),
                           .analysed = member<uint64_t>(track, "packets_analysed"),
                           .type = track.at("type")});
        if (tracks->size() >= MAX_TALLY_TRACKS)
            return;
    }
}

programme_record read_programme(const json &record)
{
    programme_record programme;
    programme.pmt_pid = member<unsigned>(record, "pmt_pid");
    read_tracks(record, &programme.tracks);
    const json &counters = record.at("counters");
    programme.has_counters = !counters.is_null();
    for (size_t i = 0; i < programme.counters.size() && programme.has_counters; ++i)
        programme.counters[i] = counters.at(COUNTERS[i]);
    programme.av_distance = read_average(record, "av_distance");
    programme.pcr_distance = read_average(record, "pcr_distance");
    programme.pcr_interval = read_average(record, "pcr_interval");
    read_counted(record, &programme.alerts);
    return programme;
}

void read_counts(const json &record, capture_tally *tally)
{
    for (size_t i = 0; i < ALERT_KINDS; ++i)
        tally->counts[i] =
            record.at("alerts").at(std::string(info_of(static_cast<line_kind>(i)).name));
    for (const json &entry : record.at("alerts_by_pid")) {
        lane_key key{};
        if (!find_alert_kind(entry.at("kind").get<std::string>(), &key.kind))
            continue;
        key.pid = member<int>(entry, "pid").value_or(-1);
        alert_lane &lane = tally->lanes[key];
        lane.count = entry.at("count");
        lane.max = member<uint64_t>(entry, "max_ms").value_or(0);
    }
}

void read_run(const json &record, capture_tally *tally)
{
    tally->file = record.at("file");
    tally->source = text_member(record, "source");
    tally->reason = text_member(record, "reason");
    tally->place = member<uint64_t>(record, "place_packet");
    tally->bytes = member<uint64_t>(record, "bytes");
    tally->packets = member<uint64_t>(record, "packets");
    tally->analysed = member<uint64_t>(record, "packets_analysed");
    tally->skipped = member<uint64_t>(record, "packets_skipped");
    tally->duration_ms = member<uint64_t>(record, "duration_ms");
    tally->damaged = record.at("damaged_lines");
    tally->foreign = record.at("foreign_lines");
    if (const json &checks = record.at("checks"); !checks.is_null())
        tally->checks = {member<uint64_t>(checks, "av_distance_ms").value_or(0),
                         member<uint64_t>(checks, "pcr_distance_ms").value_or(0),
                         member<uint64_t>(checks, "pcr_interval_ms").value_or(0),
                         checks.at("counters"), member<bool>(checks, "iso").value_or(false)};
    for (const json &programme : record.at("programmes"))
        if (tally->programmes.size() < MAX_TALLY_PROGRAMMES)
            tally->programmes.push_back(read_programme(programme));
    read_counted(record, &tally->source_alerts);
    const auto has_counters = [](const json &part) { return !part.at("engine_alerts").is_null(); };
    const json &programmes = record.at("programmes");
    tally->has_stats =
        has_counters(record) || std::any_of(programmes.begin(), programmes.end(), has_counters);
}

void read_limits(const json &record, std::vector<alert_limit> *limits)
{
    for (const json &limit : record.at("limits"))
        limits->push_back({.kind = limit.at("kind"),
                           .pid = member<int>(limit, "pid").value_or(-1),
                           .max = limit.at("max")});
}

} // namespace

void write_alert(output_file *out, const capture_tally &tally, const alert_record &alert)
{
    if (!is_open(*out))
        return;
    const line_event &line = *alert.line;
    const tag_info &tag = line.tag;
    std::string text = R"({"record":"alert","capture":)";
    put_text(&text, tally.name);
    put_text_or_null(&text.append(R"(,"source":)"), tally.source);
    put_text(&text.append(R"(,"kind":)"), info_of(line.kind).name);
    put_index(&text.append(R"(,"programme":)"), alert.programme);
    put_index(&text.append(R"(,"stream":)"), alert.stream);
    put_index(&text.append(R"(,"pid":)"), alert.pid);
    put_number_or_null(&text.append(R"(,"packet":)"), tag.has_packet, tag.packet);
    put_number_or_null(&text.append(R"(,"pcr_ticks":)"), tag.has_pcr, tag.pcr_ticks);
    put_number_or_null(&text.append(R"(,"packets_since_pcr":)"), tag.has_pcr, tag.pcr_packets);
    text.append(R"(,"stream_time_s":)").append(known(alert.stream_time_s).dump());
    put_text_or_null(&text.append(R"(,"time":)"), line.time);
    put_text_or_null(&text.append(R"(,"tag":)"), tag.text);
    put_values(&text.append(R"(,"values":{)"), line);
    write_output(out, text.append("}}\n"));
}

void write_summary(output_file *out, const capture_tally &tally, const capture_verdict &verdict)
{
    if (!is_open(*out))
        return;
    write_line(out, {{"record", "summary"},
                     {"capture", tally.name},
                     {"file", tally.file},
                     {"source", known(tally.source)},
                     {"end", end_word(tally.end)},
                     {"status", verdict.status},
                     {"reason", known(tally.reason)},
                     {"place_packet", known(tally.place)},
                     {"bytes", known(tally.bytes)},
                     {"packets", known(tally.packets)},
                     {"packets_analysed", known(tally.analysed)},
                     {"packets_skipped", known(tally.skipped)},
                     {"duration_ms", known(tally.duration_ms)},
                     {"checks", checks_of(tally)},
                     {"programmes", programmes_of(tally)},
                     {"alerts", alerts_of(tally)},
                     {"alerts_by_pid", lanes_of(tally)},
                     {"engine_alerts", counted_of(tally.source_alerts)},
                     {"damaged_lines", tally.damaged},
                     {"foreign_lines", tally.foreign},
                     {"limits", limits_of(verdict)}});
}

bool read_alert(const json &record, recorded_alert *result)
{
    try {
        if (!find_alert_kind(text_member(record, "kind"), &result->line.kind))
            return false;
        if (!parse_tag(text_member(record, "tag"), &result->line.tag))
            return false;
        read_alert_fields(record, result);
        return true;
    } catch (const json::exception &) {
        return false;
    }
}

bool read_summary(const json &record, capture_tally *tally, std::vector<alert_limit> *limits)
{
    try {
        if (!find_end(text_member(record, "end"), &tally->end))
            return false;
        read_run(record, tally);
        read_counts(record, tally);
        read_limits(record, limits);
        return true;
    } catch (const json::exception &) {
        return false;
    }
}
