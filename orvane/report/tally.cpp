#include "report/tally.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr std::string_view END_WORDS[] = {"complete",  "log_read",  "nothing", "lost_sync",
                                          "idle",      "invariant", "killed",  "interrupted",
                                          "not_begun", "unreadable"};
constexpr double TICKS_PER_SECOND = 90000;
constexpr uint64_t CLOCK_RANGE = uint64_t{1} << 33; // ISO/IEC 13818-1, 2.4.3.5
constexpr double LEAST_SECONDS = 1.0 / 1024;
constexpr double LEAST_PACKETS = 1;
// Before its first packet an engine counts from 1970.
constexpr uint64_t MAX_DURATION_MS = uint64_t{30} * 365 * 86400 * 1000;

// Where a kind has its PID and its distance among its values; -1: nowhere.
struct field_number {
    int pid = -1, distance = -1;
};

std::array<field_number, ALERT_KINDS> find_field_numbers()
{
    std::array<field_number, ALERT_KINDS> numbers;
    for (size_t k = 0; k < ALERT_KINDS; ++k) {
        const auto &fields = info_of(static_cast<line_kind>(k)).fields;
        for (size_t i = 0; i < fields.size(); ++i) {
            const std::string_view name = fields[i].name == nullptr ? "" : fields[i].name;
            if (name == "pid")
                numbers[k].pid = static_cast<int>(i);
            if (name == "delta_ms")
                numbers[k].distance = static_cast<int>(i);
        }
    }
    return numbers;
}

const std::array<field_number, ALERT_KINDS> FIELD_NUMBERS = find_field_numbers();

const field_number &field_numbers(line_kind kind) { return FIELD_NUMBERS[index_of(kind)]; }

programme_record *programme_at(capture_tally *tally, uint64_t index)
{
    if (index >= MAX_TALLY_PROGRAMMES)
        return nullptr;
    if (index >= tally->programmes.size())
        tally->programmes.resize(index + 1);
    return &tally->programmes[index];
}

// Seconds since the programme's first PCR that a tag told. The clock wraps after 26.5 hours; a step
// is taken the shorter way round.
double advance_clock(programme_record *programme, uint64_t pcr)
{
    if (!programme->has_clock) {
        programme->has_clock = true;
        programme->last_pcr = pcr;
    }
    const uint64_t step = (pcr - programme->last_pcr) % CLOCK_RANGE;
    programme->ticks += step < CLOCK_RANGE / 2
                            ? static_cast<int64_t>(step)
                            : static_cast<int64_t>(step) - static_cast<int64_t>(CLOCK_RANGE);
    programme->last_pcr = pcr;
    return static_cast<double>(programme->ticks) / TICKS_PER_SECOND;
}

// ---- STAT lines

void take_global(capture_tally *tally, const line_event &event)
{
    const auto &v = event.values;
    tally->duration_ms = v[0] < MAX_DURATION_MS ? std::optional(v[0]) : std::nullopt;
    tally->programmes.resize(std::min<uint64_t>(v[1], MAX_TALLY_PROGRAMMES));
    tally->skipped = v[2];
    tally->source_alerts[index_of(line_kind::lost_sync)] = v[3];
    tally->source_alerts[index_of(line_kind::pat_diff)] = v[4];
    tally->source_alerts[index_of(line_kind::cc_mlr)] = v[5];
    tally->open_report = {};
    // Most reports of a live host do not name the tracks.
    for (programme_record &programme : tally->programmes)
        for (track_record &track : programme.tracks)
            track.packets = track.analysed = std::nullopt;
}

void take_programme(capture_tally *tally, const line_event &event)
{
    if (programme_record *programme = programme_at(tally, event.values[0])) {
        programme->pmt_pid = static_cast<unsigned>(event.values[1]);
        programme->tracks.clear();
    }
}

void take_track(capture_tally *tally, const line_event &event)
{
    programme_record *programme = programme_at(tally, event.values[0]);
    if (programme == nullptr || programme->tracks.size() >= MAX_TALLY_TRACKS)
        return;
    track_record track{.pid = static_cast<unsigned>(event.values[1]),
                       .letter = static_cast<char>(event.values[2]),
                       .packets = event.values[3],
                       .analysed = event.values[4],
                       .type = std::string(event.text)};
    std::replace(track.type.begin(), track.type.end(), '_', ' ');
    programme->tracks.push_back(std::move(track));
}

void take_counters(capture_tally *tally, const line_event &event)
{
    programme_record &report = tally->open_report;
    report.has_counters = true;
    std::copy_n(event.values.begin() + 1, report.counters.size(), report.counters.begin());
}

average_record average_of(const line_event &event)
{
    const auto &v = event.values;
    return {static_cast<int>(v[0]), v[8], v[9], v[10], v[11]};
}

// The last line of a programme's report, the one that names it.
void close_report(capture_tally *tally, const line_event &event)
{
    programme_record *programme = programme_at(tally, event.values[0]);
    programme_record &report = tally->open_report;
    if (programme != nullptr) {
        programme->has_counters = report.has_counters;
        programme->counters = report.counters;
        programme->av_distance = report.av_distance;
        programme->pcr_distance = report.pcr_distance;
        programme->pcr_interval = report.pcr_interval;
        const auto &fields = info_of(event.kind).fields;
        for (size_t i = 1; i < fields.size(); ++i)
            if (line_kind kind{}; find_alert_kind(fields[i].name, &kind))
                programme->alerts[index_of(kind)] = event.values[i];
    }
    report = {};
}

void tally_stat(capture_tally *tally, const line_event &event)
{
    tally->has_stats = true;
    switch (event.kind) {
    case line_kind::stat_global:
        return take_global(tally, event);
    case line_kind::stat_pmts:
        return take_programme(tally, event);
    case line_kind::stat_pmti:
        return take_track(tally, event);
    case line_kind::stat_prg:
        return take_counters(tally, event);
    case line_kind::stat_av_delta:
        tally->open_report.av_distance = average_of(event);
        return;
    case line_kind::stat_pcr_delta:
        tally->open_report.pcr_distance = average_of(event);
        return;
    case line_kind::stat_pcr_freq:
        tally->open_report.pcr_interval = average_of(event);
        return;
    default:
        return close_report(tally, event);
    }
}

// ---- Alerts

// What an alert is about: its own fields say it, or the packet it was raised at.
alert_record describe(capture_tally *tally, const line_event &event)
{
    alert_record alert{.line = &event};
    alert.programme = event.tag.programme;
    alert.stream = event.tag.stream;
    if (tally->wants_time && event.tag.has_pcr && event.tag.programme >= 0)
        if (programme_record *programme =
                programme_at(tally, static_cast<uint64_t>(event.tag.programme)))
            alert.stream_time_s = advance_clock(programme, event.tag.pcr_ticks);
    if (event.kind == line_kind::pid_ndat) {
        alert.programme = static_cast<int>(std::min<uint64_t>(event.values[1], INT16_MAX));
        alert.stream = static_cast<int>(std::min<uint64_t>(event.values[2], INT16_MAX));
    }
    if (const int field = field_numbers(event.kind).pid; field >= 0)
        alert.pid = static_cast<int>(event.values[static_cast<size_t>(field)]);
    if (const int field = field_numbers(event.kind).distance; field >= 0)
        alert.distance = event.values[static_cast<size_t>(field)];
    return alert;
}

alert_lane *lane_of(capture_tally *tally, const lane_key &key)
{
    const auto slot = static_cast<unsigned>(key.pid) * 3 + static_cast<unsigned>(key.kind);
    recent_lane &recent = tally->recent[slot % tally->recent.size()];
    if (recent.lane == nullptr || recent.key != key)
        recent = {key, &tally->lanes[key]};
    return recent.lane;
}

} // namespace

std::string_view end_word(run_end end) { return END_WORDS[static_cast<size_t>(end)]; }

bool find_end(std::string_view word, run_end *end)
{
    const auto found = std::find(std::begin(END_WORDS), std::end(END_WORDS), word);
    *end = static_cast<run_end>(found - std::begin(END_WORDS));
    return found != std::end(END_WORDS);
}

bool has_distance(line_kind kind) { return field_numbers(kind).distance >= 0; }

void tally_alert(capture_tally *tally, const alert_record &alert)
{
    const line_kind kind = alert.line->kind;
    ++tally->counts[index_of(kind)];
    alert_lane *lane = lane_of(tally, {kind, alert.pid});
    ++lane->count;
    lane->max = std::max(lane->max, alert.distance);
    if (!tally->wants_bins || tally->lanes.size() > MAX_TALLY_LANES)
        return;
    if (alert.stream_time_s)
        add_to_bins(&lane->by_time, *alert.stream_time_s, alert.distance, LEAST_SECONDS);
    else
        add_to_bins(&lane->by_packet, static_cast<double>(alert.line->tag.packet), alert.distance,
                    LEAST_PACKETS);
}

void tally_event(capture_tally *tally, const line_event &event, alert_record *alert)
{
    if (!is_alert(event.kind))
        return tally_stat(tally, event);
    *alert = describe(tally, event);
    tally_alert(tally, *alert);
}

uint64_t total_alerts(const capture_tally &tally)
{
    uint64_t total = 0;
    for (size_t i = 0; i < ALERT_KINDS; ++i)
        total += alerts_of(tally, static_cast<line_kind>(i));
    return total;
}

uint64_t alert_lines(const capture_tally &tally)
{
    return std::accumulate(tally.counts.begin(), tally.counts.end(), uint64_t{0});
}

bool has_counters_alone(const capture_tally &tally)
{
    // LOST-SYNC is in every log, also where no other alert is.
    return tally.has_stats && alert_lines(tally) == tally.counts[index_of(line_kind::lost_sync)] &&
           total_alerts(tally) > alert_lines(tally);
}

uint64_t alerts_of(const capture_tally &tally, line_kind kind)
{
    if (!tally.has_stats || alert_lines(tally) > tally.counts[index_of(line_kind::lost_sync)])
        return tally.counts[index_of(kind)];
    uint64_t counted = tally.source_alerts[index_of(kind)].value_or(0);
    for (const programme_record &programme : tally.programmes)
        counted += programme.alerts[index_of(kind)].value_or(0);
    return std::max(counted, tally.counts[index_of(kind)]);
}
