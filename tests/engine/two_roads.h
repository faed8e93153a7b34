// One input along two roads: with the shortcuts a context takes by itself, and along the whole road
// with the meaning of every PID looked up anew. Everything a user sees must be the same.
#pragma once

#include "support/logging.h"
#include "tsanalyze/pids.h"
#include "tsanalyze/shortcuts.h"
#include "tsanalyze/tag.h"

#include <cstdio>
#include <exception>
#include <memory>
#include <span>
#include <string>

// Thrown, where a host of this harness has invariants throw, with the expression that is broken.
struct broken_invariant {
    const char *expression;
};

// What a host does next: a packet, or one of its acts.
struct road_step {
    enum act { PACKET, NEXT_SEG, CHECK_NDAT, PERIOD, SET_PIDX, ACT_COUNT };
    act act = PACKET;
    const uint8_t *pkt = nullptr;
};

enum class road { SHORT, WHOLE };

namespace two_roads_detail {

struct free_context {
    void operator()(tsan_t t) const { tsan_free(t); }
};
typedef std::unique_ptr<tsan_ctx, free_context> context;

struct text_stream {
    ~text_stream()
    {
        fclose(fp);
        free(text);
    }
    char *text = nullptr;
    size_t size = 0;
    FILE *fp = open_memstream(&text, &size);
};

inline void put_aggregate(FILE *fp, const aggr_val &av)
{
    fprintf(fp, " %lu %lu %lu %lu %lu %lu;", av.count, av.total, av.min, av.max, av.g_min,
            av.g_max);
}

// The fields of a context that later packets and reports go by.
inline void put_state(FILE *fp, const tsan_ctx *tc)
{
    const bool counts = tc->cfg.is_enabled && tc->cfg.cc_track; // else counters mean nothing
    fprintf(fp, "%lu %lu %lu %lu %zu; %lu %u %d %d\n", tc->last_pkt_idx, tc->ptotal, tc->atotal,
            tc->ndat_pcount, tc->nprogs, tc->last_cca.seg_idx, tc->last_cca.pid, tc->last_cca.delta,
            counts ? tc->last_cca.nmlr : 0);
    for (size_t i = 0; i < MAX_PMTS; ++i) {
        const program_info &pg = tc->pg[i];
        if (i >= tc->nprogs && pg.nstreams == 0)
            continue;
        fprintf(fp, "%zu: %u %lu %lu %d %zd %zd %lu %s;", i, tc->pmt_pid[i], pg.last_pcr,
                pg.pcr_pktnum, pg.got_pcr, pg.ref_idx, pg.pcr_idx, pg.last_seg_idx,
                tag_text(pg.pcr_ptag).text);
        for (const aggr_val *av : {&pg.av_pdts_delta, &pg.av_pcr_delta, &pg.av_pcr_freq})
            put_aggregate(fp, *av);
        for (const stream_info &si : std::span(pg.stm, pg.nstreams))
            fprintf(fp, "\n  %u %c %d %d %lu %lu %d; %lu %lu %lu %lu", si.pid, si.stype,
                    si.pts_updated, si.dts_updated, si.pcount, si.acount, counts ? last_cc(si) : 0,
                    si.last_pts, si.last_dts, si.pts_pktnum, si.dts_pktnum);
        fprintf(fp, "\n");
        dump_ctxt(fp, nullptr, &pg.txt_pmt);
    }
}

inline void take_step(tsan_t t, const road_step &step, FILE *out)
{
    switch (step.act) {
    case road_step::NEXT_SEG:
        return tsan_next_seg(t);
    case road_step::CHECK_NDAT:
        return tsan_check_ndat(t);
    case road_step::PERIOD:
        tsan_check_dump_stats(out, t);
        return tsan_reset_local_stats(t);
    case road_step::SET_PIDX:
        return tsan_set_pidx(t, tsan_get_pidx(t) * 3);
    default:
        if (const int rc = tsan_process(t, step.pkt); rc != 0)
            fprintf(out, "status %d\n", rc);
        fprintf(out, "%s\n", tag_text(t).text);
    }
}

} // namespace two_roads_detail

// Everything that is left behind by an input: the lines of both logs with every trace the settings
// ask for, the tag of every packet, the reports, and the context itself. `start` is the time of day
// at the first step; every step takes 7 ms.
inline std::string road_trip(const tsan_config &cfg, std::span<const road_step> steps, road which,
                             time_t start)
{
    using namespace two_roads_detail;
    const test_clock clock{start};
    log_text app(&g_log), access(&g_access_log);
    text_stream out;
    const context t(tsan_init(nullptr, &cfg, nullptr));
    if (which == road::WHOLE)
        walk_whole_road(t.get());
    app.take(); // tells an address
    try {
        for (const road_step &step : steps) {
            if (which == road::WHOLE)
                rebuild_pid_slots(t.get());
            take_step(t.get(), step, out.fp);
            g_now.tv_nsec += 7'000'000;
            g_now.tv_sec += g_now.tv_nsec / 1'000'000'000;
            g_now.tv_nsec %= 1'000'000'000;
        }
        tsan_check_ndat(t.get());
        tsan_dump_stats(out.fp, t.get());
        tsan_alog_stats(t.get());
        put_state(out.fp, t.get());
    } catch (const broken_invariant &broken) {
        fprintf(out.fp, "broken: %s\n", broken.expression);
    }
    fflush(out.fp);
    std::string text = app.take() + access.take() + std::string(out.text, out.size);
    char address[32];
    const size_t len = static_cast<size_t>(
        snprintf(address, sizeof address, "(%p)", static_cast<void *>(t.get())));
    for (size_t at = 0; (at = text.find(address, at)) != std::string::npos;)
        text.replace(at, len, "(T)");
    return text;
}
