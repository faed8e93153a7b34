// Life cycle of a context, and the intake of one packet.

#include "tsanalyze/iso.h"
#include "tsanalyze/packet.h"
#include "tsanalyze/pids.h"
#include "tsanalyze/presence.h"

#include <libtarnlink/log.h>
#include <libtarnlink/strops.h>
#include <libtarnlink/timeop.h>

#include <new>
#include <span>

namespace {

loglevel_ctx g_llctx;

constexpr time_t IDLE_NOTICE_SEC = 10;

time_t g_last_idle_notice; // of all contexts of the process; 0: never

// Gives the source up: no packet could be analysed for too long.
int report_idle_source(const tsan_ctx *tc)
{
    const time_t now = now_seconds();
    if (now - g_last_idle_notice > IDLE_NOTICE_SEC) {
        LOG_STMT(ERR_level, "[%s] has been idling for too long (%lu/%zu packets)\n", tc->cfg.source,
                 tc->last_pkt_idx, tc->cfg.max_skip_pkts);
        g_last_idle_notice = now;
    }
    return TSAN_IDLE;
}

// Kept apart: the text it makes has no place on the road of a packet.
[[gnu::noinline]] int report_lost_packet_start(const tsan_ctx *tc)
{
    LOG_STMT(ERR_level, "%s: [%s] out of sync at %s\n", "tsan_process", tc->cfg.source,
             tag_text(tc).text);
    return TSAN_CANNOT_GO_ON;
}

tsan_t without_memory(int *err)
{
    if (err != nullptr)
        *err = TSAN_NO_MEMORY;
    return nullptr;
}

// What is to be done before a packet is looked at: once only, unless every packet walks the whole
// road.
[[gnu::noinline]] void attend(tsan_ctx *tc)
{
    if (tc->start_tm.tv_sec == 0 && tc->start_tm.tv_nsec == 0)
        set_real_now(&tc->start_tm);
    if (!tc->shortcuts.late_tag)
        mk_ptag(tc);
    const bool has_start = tc->start_tm.tv_sec != 0 || tc->start_tm.tv_nsec != 0;
    tc->is_attended = has_start && tc->shortcuts.late_tag;
}

// The default rules. Returns whether the packet was analysed.
inline bool take_packet(tsan_ctx *tc)
{
    if (upsert_pkt_info(tc) < 0)
        return false;
    analyze_pkt(tc);
    expect_plain(tc);
    return true;
}

// The whole road of a packet.
[[gnu::noinline]] int process_packet(tsan_ctx *tc)
{
    if (!tc->is_attended) [[unlikely]]
        attend(tc);
    if (!hdr_is_sync(tc->header)) [[unlikely]]
        return report_lost_packet_start(tc);
    if (tc->iso != nullptr ? take_by_standard(tc) : take_packet(tc)) {
        if (tc->ndat_pcount != 0)
            check_pcount(tc, false);
        return TSAN_OK; // analysed, so the source is not idle
    }
    if (tc->atotal == 0 && tc->last_pkt_idx >= tc->cfg.max_skip_pkts) [[unlikely]]
        return report_idle_source(tc);
    return TSAN_OK;
}

} // namespace

// ---- Life cycle

tsan_t tsan_init(const char *source, const tsan_config *cfg, int *err)
{
    std::unique_ptr<tsan_ctx> tc(new (std::nothrow) tsan_ctx());
    if (tc == nullptr)
        return without_memory(err);
    tc->cfg = *cfg;
    if (source != nullptr)
        copy_text(tc->cfg.source, sizeof tc->cfg.source, source);
    if (cfg->iso_rules)
        tc->iso.reset(new (std::nothrow) iso_state());
    if (cfg->iso_rules && tc->iso == nullptr)
        return without_memory(err);
    tc->ndat_pcount = tc->cfg.max_ndat_pcount;
    choose_shortcuts(tc.get());
    rebuild_pid_slots(tc.get());
    tc->dat = &tc->dat_none;
    LOG_STMT(DEBUG_level, "%s: tsan[%s] (%p) created\n", __func__, tc->cfg.source,
             static_cast<void *>(tc.get()));
    return tc.release();
}

void tsan_free(tsan_t t)
{
    if (t == nullptr)
        return;
    if (t->cfg.source[0] == '\0') {
        LOG_STMT(WARN_level, "%s: avoiding double-freeing of tsan[] (%p)\n", __func__,
                 static_cast<void *>(t));
        return;
    }
    LOG_STMT(DEBUG_level, "%s: freeing up tsan[%s] (%p)\n", __func__, t->cfg.source,
             static_cast<void *>(t));
    t->cfg.source[0] = '\0';
    const std::unique_ptr<tsan_ctx> owned(t);
}

// ---- The intake

int tsan_process(tsan_t tc, const uint8_t *pkt)
{
    const ts_header header = read_header(pkt);
    const dgram_info &dat = setup_dat(tc, hdr_pid(header));
    ++tc->last_pkt_idx;
    ++tc->ptotal;
    if (is_plain(dat, header)) {
        take_plain(tc, dat, header, pkt);
        if (tc->ndat_pcount != 0)
            check_pcount(tc, false);
        return TSAN_OK;
    }
    if (means_nothing(tc, dat, header))
        return TSAN_OK;
    tc->header = header;
    tc->pkt = pkt;
    return process_packet(tc);
}

void tsan_next_seg(tsan_t tc)
{
    if (prog(tc) == nullptr)
        return;
    if (tc->last_cca.nmlr > 0)
        alert_cc_mlr(tc);
    tc->last_cca.nmlr = 0;
    ++prog(tc)->last_seg_idx;
}

void tsan_reset_local_stats(tsan_t tc)
{
    for (program_info &pg : std::span(tc->pg, tc->nprogs))
        for (aggr_val *av : {&pg.av_pdts_delta, &pg.av_pcr_delta, &pg.av_pcr_freq}) {
            if (tc->iso != nullptr)
                keep_extremes(av);
            reset_aval(av);
        }
}

uint64_t tsan_get_pidx(tsan_t tc) { return tc->last_pkt_idx; }

void tsan_set_pidx(tsan_t tc, uint64_t pidx)
{
    LOG_STMT(WARN_level, "[%s] packet index changed from %lu to %lu\n", tc->cfg.source,
             tc->last_pkt_idx, pidx);
    mk_ptag(tc);
    tc->last_pkt_idx = pidx;
}
