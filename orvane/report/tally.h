// What is known of one capture: counts, programmes, the series of its pictures and how it ended.
// Memory is bounded whatever comes.
#pragma once

#include "report/bins.h"
#include "report/events.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

enum { MAX_TALLY_PROGRAMMES = 32, MAX_TALLY_TRACKS = 64, MAX_TALLY_LANES = 512 };

// How the analysis of a capture ended; of a log there is no more to know than that it was read.
enum class run_end : uint8_t {
    complete,
    log_read,
    nothing, // no programme, no stream packet, or a log without a line of it
    lost_sync,
    idle,        // nothing could be analysed within the packets allowed
    invariant,   // the engine gave up with a broken invariant
    killed,      // a signal, an exit that was not expected
    interrupted, // by the user
    not_begun,   // interrupted before its turn
    unreadable,
};

std::string_view end_word(run_end end); // "complete", "lost_sync", ...
bool find_end(std::string_view word, run_end *end);

// The alerts of one kind and PID.
struct alert_lane {
    uint64_t count = 0;
    uint64_t max = 0;     // largest distance, where the kind has one
    bin_series by_time;   // by stream time in seconds
    bin_series by_packet; // of alerts without stream time
};

struct lane_key {
    line_kind kind;
    int pid; // -1: of no PID
    auto operator<=>(const lane_key &) const = default;
};

struct recent_lane {
    lane_key key{};
    alert_lane *lane = nullptr;
};

struct track_record {
    unsigned pid = 0;
    char letter = '?';                         // V video, A audio, S private data, ? others
    std::optional<uint64_t> packets, analysed; // missing in a report that names no tracks
    std::string type;
};

// Distances of a whole run; nothing when none was measured.
struct average_record {
    int pid = -1; // of the PCR or the reference stream; -1: none
    uint64_t count = 0, sum = 0, min = 0, max = 0;
};

// Values that no line told are missing.
struct programme_record {
    std::optional<unsigned> pmt_pid;
    std::vector<track_record> tracks;
    bool has_counters = false;
    std::array<uint64_t, 8> counters{}; // processed, analysed; of video, audio, private data
    std::optional<average_record> av_distance, pcr_distance, pcr_interval; // ms
    std::array<std::optional<uint64_t>, ALERT_KINDS> alerts;               // the engine's counters
    // The clock of stream time.
    bool has_clock = false;
    uint64_t last_pcr = 0;
    int64_t ticks = 0; // since the first PCR
};

// The checks that were on; their thresholds in ms, 0 for a check that is off.
struct check_record {
    uint64_t av_distance_ms = 0, pcr_distance_ms = 0, pcr_interval_ms = 0;
    bool counters = true;
    bool iso = false; // by the rules of the standard
};

struct capture_tally {
    std::string name;   // what it is called: the only one of its name in a run
    std::string file;   // where it was read from
    std::string source; // source tag; empty: not known
    run_end end = run_end::log_read;
    std::string reason;            // in words, how it ended, unless that was good
    std::optional<uint64_t> place; // packet at which it ended, unless that was the end
    std::optional<uint64_t> bytes, packets, analysed, skipped;
    std::optional<uint64_t> duration_ms; // wall time from the first packet to the report
    std::optional<check_record> checks;
    std::vector<programme_record> programmes;
    programme_record open_report; // lines of a report whose programme is told by its last one
    std::array<uint64_t, ALERT_KINDS> counts{};
    std::array<std::optional<uint64_t>, ALERT_KINDS> source_alerts; // the engine's, of the source
    std::map<lane_key, alert_lane> lanes;
    uint64_t damaged = 0, foreign = 0; // lines
    bool has_stats = false;
    bool wants_time = false;            // stream time is reckoned
    bool wants_bins = false;            // series are kept for pictures
    std::array<recent_lane, 16> recent; // of the latest alerts
};

// An alert with all that can be known of it.
struct alert_record {
    const line_event *line;
    int programme = -1; // what it is about; -1: not known
    int stream = -1;
    int pid = -1;
    uint64_t distance = 0;                 // ms, of the kinds that have one
    std::optional<double> stream_time_s{}; // since the programme's first PCR that was seen
};

// Whether alerts of the kind have a distance.
bool has_distance(line_kind kind);

// Takes an event. For an alert, `alert` tells what is known of it.
void tally_event(capture_tally *tally, const line_event &event, alert_record *alert);

// Takes an alert that was recorded before.
void tally_alert(capture_tally *tally, const alert_record &alert);

uint64_t total_alerts(const capture_tally &tally);
uint64_t alert_lines(const capture_tally &tally);

// Whether its alerts are known from the engine's counters and not from lines.
bool has_counters_alone(const capture_tally &tally);

// The alerts of a kind: the lines, or, of a log that has none at all, what the engine counted.
uint64_t alerts_of(const capture_tally &tally, line_kind kind);
