#include "tsanalyze/continuity.h"

#include "tsanalyze/alert.h"
#include "tsanalyze/tag.h"

#include <libtarnlink/log.h>
#include <libtarnlink/timeop.h>

namespace {

loglevel_ctx g_llctx;

// Packets lost between two counters, 0 to 15.
int32_t lost_packets(int last, int cc) { return last > cc ? cc - last + 16 : cc - last; }

// Whether a loss goes with the latest one: another PID, the same number of packets, the same
// segment (never segment 0), and no good counter seen in it.
bool is_cc_mlr(const tsan_ctx *tc, uint32_t pid, int last, int cc)
{
    const cc_alert_ctx &cca = tc->last_cca;
    return cca.seg_idx != 0 && cca.nmlr != -1 && prog(tc)->last_seg_idx == cca.seg_idx &&
           pid != cca.pid && lost_packets(last, cc) == cca.delta;
}

void save_cca(tsan_ctx *tc, uint32_t pid, int last, int cc)
{
    cc_alert_ctx &cca = tc->last_cca;
    if (is_cc_mlr(tc, pid, last, cc))
        ++cca.nmlr;
    cca.pid = pid;
    cca.delta = lost_packets(last, cc);
    cca.seg_idx = prog(tc)->last_seg_idx;
}

// Notes an unexpected zero. Returns the milliseconds since the previous one, or -1 when it was the
// first, which only arms the timer.
int64_t note_unexpected_zero(cc_info *info)
{
    timespec now{};
    set_now(&now);
    const bool armed = info->ms0_tm.tv_sec != 0 || info->ms0_tm.tv_nsec != 0;
    const int64_t delta = armed ? diff_ms(&info->ms0_tm, &now) : -1;
    info->ms0_tm = now;
    return delta;
}

} // namespace

void alert_cc_break(tsan_ctx *tc, uint32_t pid, int last, int cc)
{
    const uint64_t seg = prog(tc)->last_seg_idx;
    const tag_string tag = tag_text(tc);
    if (!tc->cfg.no_rlog)
        LOG_STMT(WARN_level, "ALERT CC-BRK [%s] dgram:%lu last/current=%d/%d pid=%u at %s\n",
                 tc->cfg.source, seg, last, cc, pid, tag.text);
    if (tc->cfg.access_log_alerts) // PID and segment change places
        log_access("ALERT CC-BRK %s %u %lu %d %d %s\n", tc->cfg.source, pid, seg, last, cc,
                   tag.text);
    ++prog(tc)->alert.cc_break;
    if (tells_alerts(tc))
        tell_alert(tc, TSAN_CC_BRK, pid,
                   {.cc = {.segment = seg, .last = last, .current = cc, .ms = 0}});
    save_cca(tc, pid, last, cc);
}

void alert_cc_rst(tsan_ctx *tc, uint32_t pid, int last, int cc, int64_t delta_ms)
{
    const uint64_t seg = prog(tc)->last_seg_idx;
    const tag_string tag = tag_text(tc);
    if (!tc->cfg.no_rlog)
        LOG_STMT(WARN_level,
                 "ALERT CC-RST [%s] dgram:%lu last/current=%d/%d pid=%u delta_ms=%ld at %s\n",
                 tc->cfg.source, seg, last, cc, pid, delta_ms, tag.text);
    if (tc->cfg.access_log_alerts)
        log_access("ALERT CC-RST %s %u %lu %d %d %ld %s\n", tc->cfg.source, pid, seg, last, cc,
                   delta_ms, tag.text);
    ++prog(tc)->alert.cc_reset;
    if (tells_alerts(tc))
        tell_alert(tc, TSAN_CC_RST, pid,
                   {.cc = {.segment = seg, .last = last, .current = cc, .ms = delta_ms}});
    save_cca(tc, pid, last, cc);
}

void cc_error(tsan_ctx *tc, stream_info *si, uint32_t pid, int cc)
{
    const int last = si->cc.value;
    bool is_reset = false;
    int64_t delta = -1;
    if (cc == 0 && tc->cfg.cc_max_ms0_ms != 0) {
        delta = note_unexpected_zero(&si->cc);
        is_reset = delta >= 0 && delta >= tc->cfg.cc_max_ms0_ms;
    }
    if (is_reset)
        alert_cc_rst(tc, pid, last, cc, delta);
    else
        alert_cc_break(tc, pid, last, cc);
}

void trace_cc(tsan_ctx *tc, uint32_t pid, int cc)
{
    LOG_STMT(INFO_level, "%s: [%s] CC=%d pid=%u at %s\n", "cc_track", tc->cfg.source, cc, pid,
             tag_text(tc).text);
}

void alert_cc_mlr(tsan_ctx *tc)
{
    const uint64_t seg = prog(tc)->last_seg_idx;
    const tag_string tag = tag_text(tc);
    if (!tc->cfg.no_rlog) // no line feed in this one, intended
        LOG_STMT(WARN_level, "ALERT CC-MLR [%s] dgram:%lu count=%d at %s", tc->cfg.source, seg,
                 tc->last_cca.nmlr, tag.text);
    if (tc->cfg.access_log_alerts)
        log_access("ALERT CC-MLR %s %lu %d %s\n", tc->cfg.source, seg, tc->last_cca.nmlr, tag.text);
    ++tc->gac.cc_mlr;
    if (tells_alerts(tc))
        tell_alert(tc, TSAN_CC_MLR, 0, {.mlr = {.segment = seg, .count = tc->last_cca.nmlr}});
}
