// Alerts as data: every record says what the line for machines says.
#pragma once

#include <tsanalyze/tsanalyze.h>

#include <sstream>
#include <string>

inline constexpr const char *KINDS[TSAN_ALERT_KINDS] = {
    "PAT-DIFF",  "PMT-DIFF",  "CC-BRK",    "CC-RST",   "CC-MLR",   "PCR-FREQ",
    "PCR-DELTA", "AV-DELTA0", "AV-DELTA+", "PID-NDAT", "LOST-SYNC"};

// What stands behind a kind and the source: the values, each behind a blank.
inline std::string values_of(const tsan_alert &a)
{
    const auto join = [](const auto &...values) {
        std::ostringstream out;
        ((out << ' ' << values), ...);
        return out.str();
    };
    const auto &u = a.u;
    switch (a.kind) {
    case TSAN_PAT_DIFF:
        return join(0, u.pat_diff.programmes, u.pat_diff.added, u.pat_diff.deleted);
    case TSAN_PMT_DIFF:
        return join(a.pid, u.pmt_diff.streams, u.pmt_diff.entries, u.pmt_diff.pcr_pid);
    case TSAN_CC_BRK:
        return join(a.pid, u.cc.segment, u.cc.last, u.cc.current);
    case TSAN_CC_RST:
        return join(a.pid, u.cc.segment, u.cc.last, u.cc.current, u.cc.ms);
    case TSAN_CC_MLR:
        return join(u.mlr.segment, u.mlr.count);
    case TSAN_PCR_FREQ:
        return join(a.pid, u.pcr_freq.old_pcr, u.pcr_freq.new_pcr, u.pcr_freq.ms);
    case TSAN_PID_NDAT:
        return join(a.pid, u.ndat.programme, u.ndat.stream);
    case TSAN_LOST_SYNC:
        return join(u.sync.count);
    default:
        return join(u.delta.is_pts ? "pts" : "dts", u.delta.pid, u.delta.ticks, a.pid,
                    u.delta.stamp, u.delta.ms);
    }
}

// The line for machines, put together from a record alone: the programme and stream of its tag are
// numbers, -1 where there is none.
inline std::string line_of(const tsan_alert &a)
{
    const auto number = [](auto n) { return std::to_string(n); };
    std::string tag = number(a.programme) + ":" + number(a.stream) + "[" + number(a.packet) + "]";
    if (a.has_pcr)
        tag += ":(pcr=" + number(a.pcr) + ")+" + number(a.pcr_age);
    if ((a.kind >= TSAN_PCR_FREQ && a.kind <= TSAN_AV_DELTA_PLUS) || a.kind == TSAN_LOST_SYNC)
        tag = "[" + tag + "]";
    return std::string("ALERT ") + KINDS[a.kind] + " src" + values_of(a) + " " + tag + "\n";
}
