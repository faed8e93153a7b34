// The report for people, and the periodic check.

#include "tsanalyze/context.h"
#include "tsanalyze/iso.h"

#include <libtarnlink/timeop.h>

namespace {

void dump_tracks(FILE *fp, const program_info &pg, size_t ip)
{
    fprintf(fp, "\tTracks:\n");
    for (size_t j = 0; j < pg.nstreams; ++j) {
        const stream_info &si = pg.stm[j];
        fprintf(fp, "\t\t[%zu:%zu] %c(pid%u) [%s]: P/A: %lu/%lu\n", ip, j, si.stype, si.pid,
                streamtype_name(si.scode), si.pcount, si.acount);
    }
    fprintf(fp, "\n");
}

void dump_packets(FILE *fp, const sa_stats &stat)
{
    fprintf(fp, "\t++ Packets:\n");
    fprintf(fp, "\t\tprocessed/analyzed:    %lu/%lu\n", stat.pcount, stat.acount);
    fprintf(fp, "\t\tprocessed V/A/S:       %lu/%lu/%lu\n", stat.v_pcount, stat.a_pcount,
            stat.s_pcount);
    fprintf(fp, "\t\tanalyzed  V/A/S:       %lu/%lu/%lu\n", stat.v_acount, stat.a_acount,
            stat.s_acount);
    fprintf(fp, "\n");
}

void dump_alerts(FILE *fp, const pg_alert_count &alert)
{
    fprintf(fp, "\t++ Alerts:\n");
    fprintf(fp, "\t\tAV delta:          %lu\n", alert.av_deltaplus);
    fprintf(fp, "\t\tAV zero:           %lu\n", alert.av_delta0);
    fprintf(fp, "\t\tPCR delta:         %lu\n", alert.pcr_delta);
    fprintf(fp, "\t\tPCR frequency:     %lu\n", alert.pcr_freq);
    fprintf(fp, "\t\tCC-BRK:            %lu\n", alert.cc_break);
    fprintf(fp, "\t\tCC-RST:            %lu\n", alert.cc_reset);
    fprintf(fp, "\t\tPMT-DIFF:          %lu\n", alert.pmt_diff);
    fprintf(fp, "\t\tPID-NDAT:          %lu\n", alert.pid_ndat);
    fprintf(fp, "\n");
}

void dump_program(FILE *fp, const program_info &pg, size_t ip)
{
    fprintf(fp, "\t---- PRG(%zu):%zu streams, PMT(%u) PCR(%u) ----\n", ip, pg.nstreams,
            pg.curr_pmt_pid, pg.pcr_pid);
    dump_tracks(fp, pg, ip);
    dump_packets(fp, pg.stat);
    dump_alerts(fp, pg.alert);
    fprintf(fp, "\t------------------------------------------\n");
}

} // namespace

void tsan_dump_stats(FILE *fp, tsan_t tc)
{
    fprintf(fp, "tsan_stats BEGIN\n");
    fprintf(fp, "\tProcessed/analyzed             %lu/%lu\n", tc->ptotal, tc->atotal);
    fprintf(fp, "\tPackets start-skipped:         %lu\n", tc->pre_skipped);
    fprintf(fp, "\tPrograms:                      %zu %s\n\n", tc->nprogs,
            tc->nprogs >= 2 ? "(MPTS)" : "");
    fprintf(fp, "\tStream-scope ALERTS:\n");
    fprintf(fp, "\t\tLOST-SYNC:         %lu\n", tc->gac.lost_sync);
    fprintf(fp, "\t\tPAT-DIFF:          %lu\n", tc->gac.pat_diff);
    fprintf(fp, "\t\tCC-MLR:            %lu\n\n", tc->gac.cc_mlr);
    for (size_t i = 0; i < tc->nprogs; ++i)
        dump_program(fp, tc->pg[i], i);
    if (tc->iso != nullptr)
        dump_standard(fp, tc);
    fprintf(fp, "tsan_stats END\n");
    tc->last_stats_dumped = now_seconds();
}

int tsan_check_dump_stats(FILE *fp, tsan_t tc)
{
    if (tc->cfg.dump_stats_period == 0)
        return TSAN_OK;
    const time_t now = now_seconds();
    if (tc->last_stats_dumped == 0) {
        tc->last_stats_dumped = now;
        return TSAN_OK;
    }
    const time_t passed = now - tc->last_stats_dumped;
    if (passed < 0 || static_cast<size_t>(passed) < tc->cfg.dump_stats_period)
        return TSAN_OK;
    if (fp != nullptr)
        tsan_dump_stats(fp, tc);
    tsan_alog_stats(tc);
    return TSAN_REPORTED;
}
