// The machine lines: every ALERT and STAT line that an engine writes to its access log.
//
// A line is a head and a message. The head is what the logger puts before it: the time, the process
// id, perhaps a prefix and a group tag. The time has one of these layouts, or is left out:
//
//     2026-11-21 11:50:37.152091 UTC   calendar with microseconds
//     2026-11-21 11:50:37 UTC          calendar in whole seconds
//     1795261837.152091                seconds since the epoch
//
// The message is "ALERT" or "STAT", the kind, the source tag and the fields of the kind, separated
// by one blank each. The table `line_kinds` is the contract: it tells the fields of every kind, in
// their order, with their units. Packets are counted from 1, clocks tick 90,000 times a second
// (ISO/IEC 13818-1, 2.4.2.1), distances are milliseconds.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

enum class line_kind : uint8_t {
    cc_brk,
    cc_rst,
    cc_mlr,
    pcr_freq,
    pcr_delta,
    av_deltaplus,
    av_delta0,
    pat_diff,
    pmt_diff,
    pid_ndat,
    lost_sync,
    stat_global, // the first that is no alert
    stat_pmts,
    stat_pmti,
    stat_prg,
    stat_av_delta,
    stat_pcr_delta,
    stat_pcr_freq,
    stat_alert_count,
};

constexpr size_t ALERT_KINDS = static_cast<size_t>(line_kind::stat_global);
constexpr size_t LINE_KINDS = static_cast<size_t>(line_kind::stat_alert_count) + 1;
constexpr size_t MAX_LINE_FIELDS = 12;
constexpr uint64_t MAX_PID = 0x1fff;

enum class field_type : uint8_t {
    number, // decimal
    pid,    // decimal, 13 bits
    signed_number,
    zero,   // a literal 0 that means nothing
    stamp,  // "pts" or "dts": 0 or 1
    letter, // one character: the class of a stream
    mean,   // the average of the sums beside it, or the platform's NaN: not kept
    text,   // in brackets, blanks written as "_"
    tag,    // the packet tag
    braced_tag,
};

struct field_info {
    const char *name; // as in a record, unit included; fields that are not kept have none
    field_type type;
};

struct kind_info {
    std::string_view name;              // as it stands in the line
    std::span<const field_info> fields; // behind the source tag
};

const kind_info &info_of(line_kind kind);

// The kind of an alert by its name. False when there is none.
bool find_alert_kind(std::string_view name, line_kind *kind);

constexpr bool is_alert(line_kind kind) { return kind < line_kind::stat_global; }
constexpr size_t index_of(line_kind kind) { return static_cast<size_t>(kind); }

// The packet tag taken apart: PAT[n], 0:M[n], pkt[n] or 0:1[n], then :(pcr=ticks)+packets.
struct tag_info {
    std::string_view text;
    int programme = -1; // index among the programmes; -1: of none
    int stream = -1;    // index among the programme's streams; -1: a table, or of none
    uint64_t packet = 0;
    bool has_packet = false; // no packet had come yet when it is false
    bool has_pcr = false;
    uint64_t pcr_ticks = 0;   // the programme's latest PCR
    uint64_t pcr_packets = 0; // packets since then
};

struct line_event {
    line_kind kind{};
    bool is_rescued = false; // the line was damaged in front of the message
    std::string_view time;   // as it stands in the line; empty: none
    std::string_view source;
    std::array<uint64_t, MAX_LINE_FIELDS> values{}; // numbers, by the kind's fields
    std::string_view text;                          // of the field of type text
    tag_info tag;
};

// Value of the field with this name, or null when the kind has none.
const uint64_t *field_of(const line_event &event, std::string_view name);
