#include "tsanalyze/timing.h"

#include "misc/mstime.h"
#include "tsanalyze/alert.h"
#include "tsanalyze/tag.h"

#include <libtarnlink/log.h>
#include <libtarnlink/mpegts.h>

#include <algorithm>

namespace {

loglevel_ctx g_llctx;

const char *kind_word(bool is_pts) { return is_pts ? "pts" : "dts"; }

uint64_t stamp_of(const stream_info *si, bool is_pts)
{
    return is_pts ? si->last_pts : si->last_dts;
}

// The alert of a time stamp too far from the PCR.
void dump_pcr_diff(tsan_ctx *tc, bool is_pts, uint64_t delta, const stream_info *si)
{
    program_info *pg = prog(tc);
    const tag_string tag = tag_text(tc);
    const uint64_t s = stamp_of(si, is_pts);
    const uint64_t p = pg->last_pcr;
    const char *kind = kind_word(is_pts);
    char pcr_stype = 'P';
    uint32_t pcr_pid = pg->pcr_pid;
    if (pg->pcr_idx >= 0) {
        const stream_info &carrier = pg->stm[pg->pcr_idx];
        pcr_stype = carrier.stype;
        pcr_pid = carrier.pid;
    }
    if (!tc->cfg.no_rlog) // the kind word follows "pcr:", the PCR's tag "<>"; part of the format
        LOG_STMT(WARN_level,
                 "ALERT PCR-DELTA [%s] pcr:%s <> %s:%s %c:pcr(pid%u)/%c:%s(pid%u) = %lu [%s]/ %lu "
                 "[%s] delta=%lu\n",
                 tc->cfg.source, kind, tag_text(pg->pcr_ptag).text, tag.text, pcr_stype, pcr_pid,
                 si->stype, kind, si->pid, p, ticks_timestr(p).text, s, ticks_timestr(s).text,
                 delta);
    if (tc->cfg.access_log_alerts)
        log_access("ALERT PCR-DELTA %s %s %u %lu %u %lu %lu [%s]\n", tc->cfg.source, kind,
                   pg->pcr_pid, p, si->pid, s, delta, tag.text);
    ++pg->alert.pcr_delta;
    if (tells_alerts(tc))
        tell_alert(
            tc, TSAN_PCR_DELTA, si->pid,
            {.delta = {.is_pts = is_pts, .pid = pg->pcr_pid, .ticks = p, .stamp = s, .ms = delta}});
}

// The alert of a time stamp too far from, or suspiciously near to, the reference stream's.
void dump_time_info(tsan_ctx *tc, tsan_alert_kind alert_kind, bool is_pts, uint64_t delta,
                    const stream_info *ref, const stream_info *si)
{
    program_info *pg = prog(tc);
    const bool is_zero = alert_kind == TSAN_AV_DELTA0;
    const char *alert = is_zero ? "AV-DELTA0" : "AV-DELTA+";
    const tag_string tag = tag_text(tc);
    const uint64_t r = stamp_of(ref, is_pts);
    const uint64_t s = stamp_of(si, is_pts);
    const char *kind = kind_word(is_pts);
    if (!tc->cfg.no_rlog)
        LOG_STMT(WARN_level,
                 "ALERT %s [%s] %s %c:%s(pid%u)/%c:%s(pid%u) = %lu [%s]/%lu [%s] PCR=%lu [%s], "
                 "delta=%lu\n",
                 alert, tc->cfg.source, tag.text, ref->stype, kind, ref->pid, si->stype, kind,
                 si->pid, r, ticks_timestr(r).text, s, ticks_timestr(s).text, pg->last_pcr,
                 ticks_timestr(pg->last_pcr).text, delta);
    if (tc->cfg.access_log_alerts)
        log_access("ALERT %s %s %s %u %lu %u %lu %lu [%s]\n", alert, tc->cfg.source, kind, ref->pid,
                   r, si->pid, s, delta, tag.text);
    ++(is_zero ? pg->alert.av_delta0 : pg->alert.av_deltaplus);
    if (tells_alerts(tc))
        tell_alert(
            tc, alert_kind, si->pid,
            {.delta = {.is_pts = is_pts, .pid = ref->pid, .ticks = r, .stamp = s, .ms = delta}});
}

// See distance_ms; here, so that it is part of its callers.
uint32_t clock_distance(const tsan_ctx *tc, uint64_t a, uint64_t b)
{
    if (tc->iso == nullptr)
        return pcr_delta_ms(std::min(a, b), std::max(a, b));
    const uint64_t forward = (a - b) % P2_33;
    return static_cast<uint32_t>(std::min(forward, P2_33 - forward) / 90);
}

// Checks a stream's last PTS (or DTS) against the programme's last PCR.
void ck_pcr(tsan_ctx *tc, bool is_pts, const stream_info *si)
{
    program_info *pg = prog(tc);
    const uint32_t delta = clock_distance(tc, stamp_of(si, is_pts), pg->last_pcr);
    inc_aval(&pg->av_pcr_delta, delta);
    if (delta > tc->cfg.max_pcr_delta)
        dump_pcr_diff(tc, is_pts, delta, si);
}

// Checks a stream's last PTS (or DTS) against that of the reference stream.
void ck_tstamp(tsan_ctx *tc, bool is_pts, const stream_info *ref, const stream_info *si)
{
    program_info *pg = prog(tc);
    const uint64_t r = stamp_of(ref, is_pts);
    const uint64_t s = stamp_of(si, is_pts);
    const uint32_t delta = clock_distance(tc, r, s);
    inc_aval(&pg->av_pdts_delta, delta);
    if (delta == 0 && r != s)
        dump_time_info(tc, TSAN_AV_DELTA0, is_pts, delta, ref, si);
    else if (delta > tc->cfg.max_pdts_delta)
        dump_time_info(tc, TSAN_AV_DELTA_PLUS, is_pts, delta, ref, si);
}

} // namespace

uint32_t distance_ms(const tsan_ctx *tc, uint64_t a, uint64_t b)
{
    return clock_distance(tc, a, b);
}

void alert_pcr_freq(tsan_ctx *tc, uint64_t pcr, uint64_t delta)
{
    program_info *pg = prog(tc);
    if (!tc->cfg.no_rlog) // the time strings take ticks for milliseconds, intended
        LOG_STMT(WARN_level, "ALERT PCR-FREQ pid=%u old/new: %lu [%s]/%lu [%s] delta=%lu\n",
                 pg->pcr_pid, pg->last_pcr, ms_timestr(pg->last_pcr).text, pcr,
                 ms_timestr(pcr).text, delta);
    if (tc->cfg.access_log_alerts)
        log_access("ALERT PCR-FREQ %s %u %lu %lu %lu [%s]\n", tc->cfg.source, pg->pcr_pid,
                   pg->last_pcr, pcr, delta, tag_text(tc).text);
    ++pg->alert.pcr_freq;
    if (tells_alerts(tc))
        tell_alert(tc, TSAN_PCR_FREQ, pg->pcr_pid,
                   {.pcr_freq = {.old_pcr = pg->last_pcr, .new_pcr = pcr, .ms = delta}});
}

void pcr_freq_check(tsan_ctx *tc, uint64_t pcr)
{
    program_info *pg = prog(tc);
    const uint32_t delta = pcr_delta_ms(pg->last_pcr, pcr);
    inc_aval(&pg->av_pcr_freq, delta);
    if (delta > tc->cfg.pcr_freq_ms)
        alert_pcr_freq(tc, pcr, delta);
}

void check_stamps(tsan_ctx *tc, stream_info *si)
{
    const program_info *pg = prog(tc);
    if (tc->cfg.max_pcr_delta != 0 && pg->got_pcr) {
        if (si->pts_updated)
            ck_pcr(tc, true, si);
        if (si->dts_updated)
            ck_pcr(tc, false, si);
    }
    if (tc->cfg.max_pdts_delta == 0 || pg->ref_idx < 0)
        return;
    // A flag that is not cleared here makes the stream's next packet repeat the checks.
    const stream_info *ref = &pg->stm[pg->ref_idx];
    if (si->pts_updated && ref->last_pts != 0) {
        ck_tstamp(tc, true, ref, si);
        si->pts_updated = false;
    }
    if (si->dts_updated && ref->last_dts != 0) {
        ck_tstamp(tc, false, ref, si);
        si->dts_updated = false;
    }
}

void check_stamps_once(tsan_ctx *tc, const stream_info *si)
{
    const program_info *pg = prog(tc);
    const bool with_pcr = tc->cfg.max_pcr_delta != 0 && pg->got_pcr && !pg->awaits_base;
    const stream_info *ref =
        tc->cfg.max_pdts_delta != 0 && pg->ref_idx >= 0 ? &pg->stm[pg->ref_idx] : nullptr;
    if (si->pts_updated && with_pcr)
        ck_pcr(tc, true, si);
    if (si->dts_updated && with_pcr)
        ck_pcr(tc, false, si);
    if (si->pts_updated && ref != nullptr && ref->pts_pktnum != 0 && ref->pts_base == si->pts_base)
        ck_tstamp(tc, true, ref, si);
    if (si->dts_updated && ref != nullptr && ref->dts_pktnum != 0 && ref->dts_base == si->dts_base)
        ck_tstamp(tc, false, ref, si);
}
