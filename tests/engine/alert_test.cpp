// Alerts as data: every record says what the line for machines says.

#include "engine/engine.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

constexpr const char *KINDS[TSAN_ALERT_KINDS] = {"PAT-DIFF",  "PMT-DIFF", "CC-BRK",    "CC-RST",
                                                 "CC-MLR",    "PCR-FREQ", "PCR-DELTA", "AV-DELTA0",
                                                 "AV-DELTA+", "PID-NDAT", "LOST-SYNC"};

// What stands behind a kind and the source: the values, each behind a blank.
std::string values_of(const tsan_alert &a)
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

// The line for machines, put together from a record alone.
std::string line_of(const tsan_alert &a)
{
    const auto number = [](auto n) { return std::to_string(n); };
    const std::string stream = a.kind == TSAN_PMT_DIFF ? "M" : number(a.stream);
    std::string tag = a.kind == TSAN_PAT_DIFF ? "PAT" : number(a.programme) + ":" + stream;
    tag += "[" + number(a.packet) + "]";
    if (a.has_pcr)
        tag += ":(pcr=" + number(a.pcr) + ")+" + number(a.pcr_age);
    if ((a.kind >= TSAN_PCR_FREQ && a.kind <= TSAN_AV_DELTA_PLUS) || a.kind == TSAN_LOST_SYNC)
        tag = "[" + tag + "]";
    return std::string("ALERT ") + KINDS[a.kind] + " src" + values_of(a) + " " + tag + "\n";
}

} // namespace

TEST(alert, records_say_what_the_lines_say)
{
    engine e;
    std::string lines;
    const auto tell = [](void *opaque, const tsan_alert *alert) {
        *static_cast<std::string *>(opaque) += line_of(*alert);
    };
    tsan_set_alert_callback(e.t, tell, &lines);
    one_program(&e.c);
    e.c.payload(0x102);
    e.c.pes(0x101, {.pts = 945000, .dts = 900000, .pcr = 900000});
    e.c.pes(0x102, {.pts = 945045, .dts = 990000});
    e.c.pcr(0x101, 909090);
    for (const unsigned cc : {9U, 0U, 9U, 0U}) {
        e.c.set_cc(0x101, cc);
        e.c.payload(0x101);
        e.feed();
        g_now.tv_sec += 1;
    }
    for (int segment = 0; segment < 2; ++segment) {
        tsan_next_seg(e.t);
        for (const unsigned pid : {0x101U, 0x102U}) {
            e.c.skip_cc(pid, 2);
            e.c.payload(pid);
        }
        e.feed();
    }
    tsan_next_seg(e.t);
    tsan_check_ndat(e.t);
    e.c.pmt(0x100, {.pcr_pid = 0x101, .version = 1, .streams = {{0x1b, 0x101}, {0x0f, 0x109}}});
    e.c.pat({{1, 0x100}, {2, 0x200}}, {.version = 1});
    e.c.payload(0x101);
    e.feed();
    tsan_alert_lostsync(e.t);
    tsan_set_alert_callback(e.t, nullptr, nullptr);
    EXPECT_EQ(lines, e.alerts());
    for (const std::string kind : KINDS)
        EXPECT_NE(lines.find("ALERT " + kind + " "), std::string::npos) << kind;
    const size_t size = lines.size();
    tsan_alert_lostsync(e.t);
    EXPECT_EQ(lines.size(), size);
}
