#include "report/events.h"

#include <algorithm>

namespace {

using enum field_type;

constexpr field_info CC_BRK[] = {{"pid", pid},
                                 {"segment", number},
                                 {"last_counter", number},
                                 {"current_counter", number},
                                 {nullptr, tag}};
constexpr field_info CC_RST[] = {{"pid", pid},
                                 {"segment", number},
                                 {"last_counter", number},
                                 {"current_counter", number},
                                 {"since_ms", signed_number},
                                 {nullptr, tag}};
constexpr field_info CC_MLR[] = {{"segment", number}, {"count", signed_number}, {nullptr, tag}};
constexpr field_info PCR_FREQ[] = {{"pid", pid},
                                   {"old_pcr_ticks", number},
                                   {"new_pcr_ticks", number},
                                   {"delta_ms", number},
                                   {nullptr, braced_tag}};
constexpr field_info PCR_DELTA[] = {
    {"stamp", stamp},        {"pcr_pid", pid},     {"pcr_ticks", number}, {"pid", pid},
    {"stamp_ticks", number}, {"delta_ms", number}, {nullptr, braced_tag}};
constexpr field_info AV_DELTA[] = {
    {"stamp", stamp},        {"video_pid", pid},   {"video_ticks", number}, {"pid", pid},
    {"stamp_ticks", number}, {"delta_ms", number}, {nullptr, braced_tag}};
constexpr field_info PAT_DIFF[] = {{nullptr, zero},
                                   {"programmes", number},
                                   {"added", number},
                                   {"deleted", number},
                                   {nullptr, tag}};
constexpr field_info PMT_DIFF[] = {{"pid", pid},
                                   {"streams_before", number},
                                   {"entries_now", number},
                                   {"pcr_pid", pid},
                                   {nullptr, tag}};
constexpr field_info PID_NDAT[] = {
    {"pid", pid}, {"programme", number}, {"stream", number}, {nullptr, tag}};
constexpr field_info LOST_SYNC[] = {{"sequence", number}, {nullptr, braced_tag}};

constexpr field_info GLOBAL[] = {{"duration_ms", signed_number}, {"programmes", number},
                                 {"packets_skipped", number},    {"LOST-SYNC", number},
                                 {"PAT-DIFF", number},           {"CC-MLR", number}};
constexpr field_info PMTS[] = {{"programme", number}, {"pmt_pid", pid}, {"streams", number}};
constexpr field_info PMTI[] = {{"programme", number}, {"pid", pid},         {"class", letter},
                               {"packets", number},   {"analysed", number}, {"type", text}};
// The PID is that of the PCR of the latest packet's programme.
constexpr field_info PRG[] = {
    {"latest_pcr_pid", pid},    {"packets", number},         {"analysed", number},
    {"video_packets", number},  {"video_analysed", number},  {"audio_packets", number},
    {"audio_analysed", number}, {"private_packets", number}, {"private_analysed", number}};
constexpr field_info AVERAGE[] = {
    {"pid", signed_number},   {nullptr, signed_number}, {nullptr, mean},
    {"period_count", number}, {"period_sum", number},   {"period_min", number},
    {"period_max", number},   {nullptr, mean},          {"count", number},
    {"sum", number},          {"min", number},          {"max", number}};
constexpr field_info ALERT_COUNT[] = {
    {"programme", number}, {"AV-DELTA+", number}, {"AV-DELTA0", number}, {"PCR-DELTA", number},
    {"PCR-FREQ", number},  {"CC-BRK", number},    {"CC-RST", number},    {"PID-NDAT", number}};

constexpr std::array<kind_info, LINE_KINDS> KINDS{{{"CC-BRK", CC_BRK},
                                                   {"CC-RST", CC_RST},
                                                   {"CC-MLR", CC_MLR},
                                                   {"PCR-FREQ", PCR_FREQ},
                                                   {"PCR-DELTA", PCR_DELTA},
                                                   {"AV-DELTA+", AV_DELTA},
                                                   {"AV-DELTA0", AV_DELTA},
                                                   {"PAT-DIFF", PAT_DIFF},
                                                   {"PMT-DIFF", PMT_DIFF},
                                                   {"PID-NDAT", PID_NDAT},
                                                   {"LOST-SYNC", LOST_SYNC},
                                                   {"GLOBAL", GLOBAL},
                                                   {"PMTs", PMTS},
                                                   {"PMTi", PMTI},
                                                   {"PRG", PRG},
                                                   {"AV-delta", AVERAGE},
                                                   {"PCR-delta", AVERAGE},
                                                   {"PCR-freq", AVERAGE},
                                                   {"ALERT-count", ALERT_COUNT}}};

} // namespace

const kind_info &info_of(line_kind kind) { return KINDS[index_of(kind)]; }

bool find_alert_kind(std::string_view name, line_kind *kind)
{
    const auto end = KINDS.begin() + ALERT_KINDS;
    const auto found =
        std::find_if(KINDS.begin(), end, [name](const kind_info &k) { return k.name == name; });
    if (found == end)
        return false;
    *kind = static_cast<line_kind>(found - KINDS.begin());
    return true;
}

const uint64_t *field_of(const line_event &event, std::string_view name)
{
    const auto &fields = info_of(event.kind).fields;
    for (size_t i = 0; i < fields.size(); ++i)
        if (fields[i].name != nullptr && fields[i].name == name)
            return &event.values[i];
    return nullptr;
}
