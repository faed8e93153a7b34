// The STAT lines: the report for machines, on the access log.

#include "tsanalyze/context.h"

#include <libtarnlink/log.h>
#include <libtarnlink/timeop.h>

namespace {

void log_global_stats(const tsan_ctx *tc)
{
    timespec now{};
    set_real_now(&now);
    log_access("STAT GLOBAL %s %ld %zu %lu %lu %lu %lu\n", tc->cfg.source,
               diff_ms(&tc->start_tm, &now), tc->nprogs, tc->pre_skipped, tc->gac.lost_sync,
               tc->gac.pat_diff, tc->gac.cc_mlr);
}

void log_pmt_stats(const tsan_ctx *tc, size_t i)
{
    const program_info &pg = tc->pg[i];
    log_access("STAT PMTs %s %zu %u %zu\n", tc->cfg.source, i, pg.curr_pmt_pid, pg.nstreams);
    for (size_t j = 0; j < pg.nstreams; ++j) {
        const stream_info &si = pg.stm[j];
        log_access("STAT PMTi %s %zu %u %c %lu %lu [%s]\n", tc->cfg.source, i, si.pid, si.stype,
                   si.pcount, si.acount, get_streamtype_txt(si.scode));
    }
}

void log_prg_stats(const tsan_ctx *tc, size_t i)
{
    const sa_stats &stat = tc->pg[i].stat;
    // The PCR PID is that of the latest packet's programme, not of programme i, intended.
    log_access("STAT PRG %s %u %lu %lu %lu %lu %lu %lu %lu %lu\n", tc->cfg.source,
               prog(tc) != nullptr ? prog(tc)->pcr_pid : 0, stat.pcount, stat.acount, stat.v_pcount,
               stat.v_acount, stat.a_pcount, stat.a_acount, stat.s_pcount, stat.s_acount);
}

// PID of a stream of the programme, or -1 when the index names none.
int pid_at(const program_info &pg, ssize_t idx)
{
    return idx < 0 ? -1 : static_cast<int>(pg.stm[idx].pid);
}

void log_prg_deltas(const tsan_ctx *tc, size_t i)
{
    const program_info &pg = tc->pg[i];
    const tsan_config &cfg = tc->cfg;
    if (cfg.max_pdts_delta != 0)
        log_aval_stats("AV-delta", cfg.source, pid_at(pg, pg.ref_idx), -1, &pg.av_pdts_delta);
    if (cfg.max_pcr_delta != 0)
        log_aval_stats("PCR-delta", cfg.source, pid_at(pg, pg.pcr_idx), -1, &pg.av_pcr_delta);
    if (cfg.pcr_freq_ms != 0)
        log_aval_stats("PCR-freq", cfg.source, pid_at(pg, pg.pcr_idx), -1, &pg.av_pcr_freq);
}

void log_alert_counters(const tsan_ctx *tc, size_t i)
{
    const pg_alert_count &alert = tc->pg[i].alert; // pmt_diff is not part of the line, intended
    log_access("STAT ALERT-count %s %zu %lu %lu %lu %lu %lu %lu %lu\n", tc->cfg.source, i,
               alert.av_deltaplus, alert.av_delta0, alert.pcr_delta, alert.pcr_freq, alert.cc_break,
               alert.cc_reset, alert.pid_ndat);
}

} // namespace

void tsan_alog_stats(tsan_t tc)
{
    log_global_stats(tc);
    for (size_t i = 0; i < tc->nprogs; ++i) {
        if (tc->pg[i].skip_pmt_out == 0)
            log_pmt_stats(tc, i);
        ++tc->pg[i].skip_pmt_out;
        log_prg_stats(tc, i);
        log_prg_deltas(tc, i);
        log_alert_counters(tc, i);
    }
}
