#include "tsanalyze/presence.h"

#include "tsanalyze/alert.h"
#include "tsanalyze/tag.h"

#include <libtarnlink/log.h>
#include <libtarnlink/timeop.h>

namespace {

loglevel_ctx g_llctx;

constexpr time_t LOST_SYNC_PERIOD_SEC = 2;
constexpr size_t LOST_SYNC_LIMIT = 9; // losses of a period that a host may go on after

// Losses of sync in the current period, of all contexts of the process.
struct {
    time_t last_tm; // when the period began; 0: never
    size_t count;
} g_lost_sync;

void alert_ndat_pcount(tsan_ctx *tc, size_t ip, size_t is, uint32_t pid)
{
    const tag_string tag = tag_text(tc);
    if (!tc->cfg.no_rlog)
        LOG_STMT(WARN_level, "ALERT PID-NDAT [%s] %zu:%zu pid%u received no data %s\n",
                 tc->cfg.source, ip, is, pid, tag.text);
    if (tc->cfg.access_log_alerts)
        log_access("ALERT PID-NDAT %s %u %zu %zu %s\n", tc->cfg.source, pid, ip, is, tag.text);
    if (prog(tc) != nullptr) // counted where the current packet belongs, intended
        ++prog(tc)->alert.pid_ndat;
    if (tells_alerts(tc))
        tell_alert(tc, TSAN_PID_NDAT, pid, {.ndat = {.programme = ip, .stream = is}});
}

// By the standard's rules each programme is counted from where it stands, and the count tells only
// when the check is not due; by the default ones all are held against the count of the current one.
void arm(tsan_ctx *tc)
{
    if (tc->iso == nullptr) {
        tc->ndat_pcount = current_pcount(tc) + tc->cfg.max_ndat_pcount;
        return;
    }
    for (size_t i = 0; i < tc->nprogs; ++i)
        tc->iso->ndat_base[i] = tc->pg[i].stat.pcount;
    tc->ndat_pcount = tc->cfg.max_ndat_pcount;
}

bool is_due(const tsan_ctx *tc)
{
    if (tc->iso == nullptr)
        return true;
    const uint64_t base = prog(tc) != nullptr ? tc->iso->ndat_base[prog(tc) - tc->pg] : 0;
    return current_pcount(tc) - base >= tc->cfg.max_ndat_pcount;
}

} // namespace

int tsan_alert_lostsync(tsan_t tc)
{
    const time_t now = now_seconds();
    auto &period = g_lost_sync;
    if (period.last_tm == 0) {
        period.last_tm = now;
    } else if (now - period.last_tm > LOST_SYNC_PERIOD_SEC && period.count <= LOST_SYNC_LIMIT) {
        period.count = 0;
        period.last_tm = now;
    }
    ++period.count;
    ++tc->gac.lost_sync;
    const tag_string tag = tag_text(tc);
    if (!tc->cfg.no_rlog)
        LOG_STMT(WARN_level, "ALERT LOST-SYNC [%s] seq=%zu at %s\n", tc->cfg.source, period.count,
                 tag.text);
    // This alert reaches the access log whatever access_log_alerts says, intended.
    log_access("ALERT LOST-SYNC %s %zu [%s]\n", tc->cfg.source, period.count, tag.text);
    if (tells_alerts(tc))
        tell_alert(tc, TSAN_LOST_SYNC, 0, {.sync = {.count = period.count}});
    if (period.count <= LOST_SYNC_LIMIT)
        return TSAN_OK;
    LOG_STMT(ERR_level, "%s: bailing out after %zu cases within %ld sec\n", __func__, period.count,
             now - period.last_tm);
    return TSAN_CANNOT_GO_ON;
}

void reset_ndat_pcount(tsan_ctx *tc)
{
    if (tc->cfg.max_ndat_pcount == 0)
        return;
    arm(tc);
    LOG_STMT(DEBUG_level, "%s: (%p) NDAT pcount=%lu\n", __func__, static_cast<void *>(tc),
             tc->ndat_pcount);
}

void find_silent_streams(tsan_ctx *tc, bool forced)
{
    if (!forced && !is_due(tc))
        return;
    size_t ntracks = 0;
    size_t nsilent = 0;
    for (size_t ip = 0; ip < tc->nprogs; ++ip)
        for (size_t is = 0; is < tc->pg[ip].nstreams && !tc->pg[ip].is_unlisted; ++is) {
            const stream_info &si = tc->pg[ip].stm[is];
            ++ntracks;
            if (si.pcount != 0)
                continue;
            alert_ndat_pcount(tc, ip, is, si.pid);
            ++nsilent;
        }
    if (nsilent > 0) {
        LOG_STMT(WARN_level, "[%s] %zu tracks NOT receiving data\n", tc->cfg.source, nsilent);
        reset_ndat_pcount(tc);
        // With max_ndat_pcount 0 nothing was armed above; by the default rules the next packet's
        // check is due at once.
        arm(tc);
    } else {
        tc->ndat_pcount = 0;
        LOG_STMT(NORM_level, "[%s] %zu tracks receiving data\n", tc->cfg.source, ntracks);
    }
}

void tsan_check_ndat(tsan_t tc) { check_pcount(tc, true); }
