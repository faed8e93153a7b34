// What the report for people says by the standard's rules.

#include "tsanalyze/iso.h"

#include "tsanalyze/pids.h"

#include <algorithm>

namespace {

void dump_scrambled(FILE *fp, const iso_state &iso)
{
    uint64_t total = 0;
    for (const uint64_t count : iso.scrambled)
        total += count;
    fprintf(fp, "\t\tscrambled packets:     %lu\n", total);
    for (size_t pid = 0; pid < PID_COUNT; ++pid)
        if (iso.scrambled[pid] != 0)
            fprintf(fp, "\t\t\tpid%zu: %lu\n", pid, iso.scrambled[pid]);
}

// The refusals of a PID, of what gathers its sections now and of what did before.
section_refusals refused_on(const tsan_ctx *tc, size_t pid)
{
    section_refusals sum = tc->iso->refused[pid];
    const auto add = [&sum](const section_gatherer &sections) {
        for (size_t fault = 0; fault < SECTION_FAULTS; ++fault)
            sum[fault] += sections.refused()[fault];
    };
    if (pid == PAT_PID_NUMBER)
        add(tc->iso->pat_sections);
    for (size_t i = 0; i < tc->nprogs; ++i)
        if (tc->pmt_pid[i] == pid)
            add(tc->iso->pmt_sections[i]);
    return sum;
}

uint64_t sum_of(const section_refusals &by)
{
    return by[SECTION_BAD_CRC] + by[SECTION_INCOMPLETE] + by[SECTION_BAD_LENGTH];
}

void dump_refused(FILE *fp, const tsan_ctx *tc)
{
    const iso_state &iso = *tc->iso;
    uint64_t total = sum_of(iso.pat_sections.refused());
    for (const section_gatherer &sections : iso.pmt_sections)
        total += sum_of(sections.refused());
    for (const section_refusals &by : iso.refused)
        total += sum_of(by);
    fprintf(fp, "\t\tsections refused:      %lu\n", total);
    for (size_t pid = 0; pid < PID_COUNT && total != 0; ++pid) {
        const section_refusals by = refused_on(tc, pid);
        if (sum_of(by) != 0)
            fprintf(fp, "\t\t\tpid%zu: CRC %lu, incomplete %lu, length %lu\n", pid,
                    by[SECTION_BAD_CRC], by[SECTION_INCOMPLETE], by[SECTION_BAD_LENGTH]);
    }
}

// Writes an aggregate of milliseconds, or why there is none.
void dump_measured(FILE *fp, const char *what, const aggr_val &av, const char *why)
{
    if (av.g_count == 0) {
        fprintf(fp, "\t\t%-22s not measured (%s)\n", what, why);
        return;
    }
    // The run's extremes may still lack the first value of a period.
    const uint64_t least = av.count != 0 ? std::min(av.min, av.g_min) : av.g_min;
    const uint64_t most = av.count != 0 ? std::max(av.max, av.g_max) : av.g_max;
    fprintf(fp, "\t\t%-22s count=%lu min=%lu mean=%.2f max=%lu (ms)\n", what, av.g_count, least,
            static_cast<double>(av.g_total) / static_cast<double>(av.g_count), most);
}

// Whether a PMT of the programme has come.
bool has_pmt(const program_info &pg) { return pg.txt_pmt.buf != nullptr; }

// Why the programme has no PCR; `otherwise` when it has.
const char *why_no_pcr(const program_info &pg, const char *otherwise)
{
    if (!has_pcr_pid(pg))
        return "the PMT lists no PCR";
    return pg.pcr_pktnum == 0 ? "no PCR" : otherwise;
}

const char *why_no_interval(const tsan_ctx *tc, const program_info &pg)
{
    if (tc->cfg.pcr_freq_ms == 0)
        return "check off";
    if (!has_pmt(pg))
        return "no PMT";
    return why_no_pcr(pg, "no two PCRs of a time base");
}

// Why there is no distance of an audio time stamp; null: for want of what it is held against.
const char *why_no_stamp(const tsan_ctx *tc, const program_info &pg, size_t threshold)
{
    if (threshold == 0 || !tc->cfg.is_enabled)
        return "check off";
    if (!has_pmt(pg))
        return "no PMT";
    // Of several reasons, that of the stream which is nearest to being measured.
    constexpr const char *reasons[] = {"no audio", "the audio carries the PCR",
                                       "the audio is scrambled", "no time stamp of audio"};
    size_t nearest = 0;
    for (const stream_info &si : std::span(pg.stm, pg.nstreams)) {
        if (si.stype != 'A')
            continue;
        const bool is_timed = si.pid != pg.pcr_pid;
        if (is_timed && si.pts_pktnum != 0)
            return nullptr;
        const size_t reason = !is_timed ? 1 : tc->iso->scrambled[si.pid] != 0 ? 2 : 3;
        nearest = std::max(nearest, reason);
    }
    return reasons[nearest];
}

const char *why_no_reference(const tsan_ctx *tc, const program_info &pg)
{
    if (pg.ref_idx < 0)
        return "no video";
    const stream_info &ref = pg.stm[pg.ref_idx];
    const bool is_scrambled = ref.pts_pktnum == 0 && tc->iso->scrambled[ref.pid] != 0;
    return is_scrambled ? "the video is scrambled" : "no time stamp of video before";
}

const char *or_else(const char *why, const char *other) { return why != nullptr ? why : other; }

void dump_program(FILE *fp, const tsan_ctx *tc, size_t i)
{
    const program_info &pg = tc->pg[i];
    fprintf(fp, "\t---- PRG(%zu): program %u%s ----\n", i, pg.number,
            pg.is_unlisted ? ", listed no more" : "");
    dump_measured(fp, "PCR intervals:", pg.av_pcr_freq, why_no_interval(tc, pg));
    dump_measured(fp, "PCR distances:", pg.av_pcr_delta,
                  or_else(why_no_stamp(tc, pg, tc->cfg.max_pcr_delta),
                          why_no_pcr(pg, "no time stamp after a PCR")));
    dump_measured(fp, "A/V distances:", pg.av_pdts_delta,
                  or_else(why_no_stamp(tc, pg, tc->cfg.max_pdts_delta), why_no_reference(tc, pg)));
}

} // namespace

void dump_standard(FILE *fp, const tsan_ctx *tc)
{
    fprintf(fp, "\tISO/IEC 13818-1:\n");
    fprintf(fp, "\t\tdamaged packets:       %lu\n", tc->iso->damaged);
    dump_scrambled(fp, *tc->iso);
    dump_refused(fp, tc);
    fprintf(fp, "\n");
    for (size_t i = 0; i < tc->nprogs; ++i)
        dump_program(fp, tc, i);
    fprintf(fp, "\t------------------------------------------\n");
}
