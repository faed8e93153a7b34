// Life cycle of a context, and the intake of one packet.

#include "tsanalyze/packet.h"
#include "tsanalyze/pat.h"
#include "tsanalyze/presence.h"
#include "tsanalyze/psi.h"

#include <libtarnlink/log.h>
#include <libtarnlink/mpegts.h>
#include <libtarnlink/strops.h>
#include <libtarnlink/timeop.h>

#include <cerrno>
#include <new>

namespace {

loglevel_ctx g_llctx;

constexpr int SOURCE_IDLES = -16;
constexpr time_t IDLE_NOTICE_SEC = 10;

time_t g_last_idle_notice; // of all contexts of the process; 0: never

} // namespace

tsan_t tsan_init(const char *source, const tsan_config *cfg, int *err)
{
    std::unique_ptr<tsan_ctx> tc(new (std::nothrow) tsan_ctx());
    if (tc == nullptr) {
        if (err != nullptr)
            *err = ENOMEM;
        return nullptr;
    }
    tc->cfg = *cfg;
    if (source != nullptr)
        copy_text(tc->cfg.source, sizeof tc->cfg.source, source);
    tc->ndat_pcount = tc->cfg.max_ndat_pcount;
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

// Gives the source up: no packet could be analysed for too long.
static int report_idle_source(const tsan_ctx *tc)
{
    const time_t now = now_seconds();
    if (now - g_last_idle_notice > IDLE_NOTICE_SEC) {
        LOG_STMT(ERR_level, "[%s] has been idling for too long (%lu/%zu packets)\n", tc->cfg.source,
                 tc->last_pkt_idx, tc->cfg.max_skip_pkts);
        g_last_idle_notice = now;
    }
    return SOURCE_IDLES;
}

// Kept apart: the text it makes has no place on the road of a packet.
[[gnu::noinline]] static int report_lost_packet_start(const tsan_ctx *tc)
{
    LOG_STMT(ERR_level, "%s: [%s] out of sync at %s\n", "tsan_process", tc->cfg.source,
             tag_text(tc).text);
    return -1;
}

// ---- The intake
//
// Most packets are plain: they continue a payload unit of a stream whose latest packet left nothing
// to be checked again, without adaptation field, and their counter is in sequence. All of that is
// one comparison with the header expected; what is left to do is to count. Others mean nothing to
// anyone, above all null packets. The rest walks the whole road, which has the same effect on these
// two kinds as well.

// The header a stream's next packet has if it is plain; 0, which no packet begins with, when the
// next one must walk the whole road.
static ts_header plain_header_after(const tsan_ctx *tc, const dgram_info &dat, ts_header h)
{
    const stream_info &si = *dat.stream;
    const bool repeats_checks = si.stype == 'A' && (si.pts_updated || si.dts_updated);
    if (!tc->cfg.is_enabled || !tc->cfg.cc_track || tc->cfg.trk.cc_track || repeats_checks ||
        !ts_has_payload_only(h))
        return 0;
    return ts_continued(h);
}

static inline void count_plain_packet(tsan_ctx *tc, sa_stats *stat, stream_info *si, ts_header h)
{
    ++tc->atotal;
    inc_pkt_stat(stat, si);
    tc->last_cca.nmlr = -1;
    si->cc.value = ts_cc(h);
    si->next_plain = ts_continued(h);
}

// Whether there is nothing to do about a packet of an unknown PID.
static inline bool means_nothing(const tsan_ctx *tc, ts_header h)
{
    return ts_is_sync(h) && ts_pid(h) != SDT_PID_NUMBER && tc->atotal != 0 &&
           !tc->cfg.trk.misc_ignore;
}

// Ends the road of an analysed packet.
[[gnu::noinline]] static int check_silence(tsan_ctx *tc)
{
    check_pcount(tc, false);
    return 0;
}

[[gnu::noinline]] static int process_packet(tsan_ctx *tc, const dgram_info &dat, ts_header h,
                                            const uint8_t *pkt)
{
    if (tc->start_tm.tv_sec == 0 && tc->start_tm.tv_nsec == 0) [[unlikely]]
        set_real_now(&tc->start_tm);
    if (!ts_is_sync(h)) [[unlikely]]
        return report_lost_packet_start(tc);
    if (upsert_pkt_info(tc, dat, h, pkt) >= 0) {
        if (analyze_pkt(tc, dat, h, pkt) != 0)
            return -1;
        dat.stream->next_plain = plain_header_after(tc, dat, h);
        return tc->ndat_pcount != 0 ? check_silence(tc) : 0; // analysed, so the source is not idle
    }
    if (tc->atotal == 0 && tc->last_pkt_idx >= tc->cfg.max_skip_pkts) [[unlikely]]
        return report_idle_source(tc);
    return 0;
}

// Classifies the current packet by its PID.
static inline const dgram_info &setup_dat(tsan_ctx *tc, uint32_t pid)
{
    tc->dat = tc->dat_of[pid];
    return *tc->dat;
}

int tsan_process(tsan_t tc, const uint8_t *pkt)
{
    const ts_header header = read_header(pkt);
    const dgram_info &dat = setup_dat(tc, ts_pid(header));
    ++tc->last_pkt_idx;
    ++tc->ptotal;
    if (stream_info *si = dat.stream; si != nullptr && header == si->next_plain) {
        count_plain_packet(tc, &dat.program->stat, si, header);
        return tc->ndat_pcount != 0 ? check_silence(tc) : 0;
    }
    if (&dat == &tc->dat_none && means_nothing(tc, header))
        return 0;
    return process_packet(tc, dat, header, pkt);
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
    for (size_t i = 0; i < tc->nprogs; ++i) {
        reset_aval(&tc->pg[i].av_pdts_delta);
        reset_aval(&tc->pg[i].av_pcr_delta);
        reset_aval(&tc->pg[i].av_pcr_freq);
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
