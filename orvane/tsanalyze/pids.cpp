#include "tsanalyze/pids.h"

#include <algorithm>

namespace {

// Whether a PID means nothing yet, or something to a later programme, by the standard's rules.
bool is_for_another(const dgram_info *dat, const program_info *pg)
{
    return dat->program != nullptr && dat->program != pg;
}

// Puts a meaning in front of what the PID has meant so far. Later programmes that list the PID are
// its next users by the standard's rules; by the default rules the first is the only one.
void enter(tsan_ctx *tc, uint32_t pid, dgram_info *dat, const dgram_info **next_user)
{
    const dgram_info *so_far = tc->dat_of[pid];
    if (tc->iso != nullptr)
        *next_user = is_for_another(so_far, dat->program) ? so_far : next_user_of(*so_far);
    tc->dat_of[pid] = dat;
}

// A PCR PID that is no stream's of the programme.
void enter_pcr(tsan_ctx *tc, program_info *pg, int16_t ip)
{
    if (!has_pcr_pid(*pg) || tc->dat_of[pg->pcr_pid]->program == pg)
        return;
    pg->dat_pcr = {.ipg = ip, .program = pg};
    enter(tc, pg->pcr_pid, &pg->dat_pcr, &pg->next_user);
}

void enter_streams(tsan_ctx *tc)
{
    // Backwards, so that the first to list a PID is the last to write its slot.
    for (size_t ip = tc->nprogs; ip-- > 0;) {
        program_info &pg = tc->pg[ip];
        if (pg.is_unlisted)
            continue;
        for (size_t is = pg.nstreams; is-- > 0;) {
            stream_info &si = pg.stm[is];
            si.dat = {.ipg = static_cast<int16_t>(ip),
                      .istm = static_cast<int16_t>(is),
                      .program = &pg,
                      .stream = &si};
            enter(tc, si.pid, &si.dat, &si.next_user);
        }
        if (tc->iso != nullptr)
            enter_pcr(tc, &pg, static_cast<int16_t>(ip));
    }
}

void enter_pmts(tsan_ctx *tc)
{
    const ssize_t end = find_pid(tc->pmt_pid, MAX_PMTS, 0);
    for (ssize_t i = end < 0 ? ssize_t{MAX_PMTS} : end; i-- > 0;) {
        program_info &pg = tc->pg[i];
        if (pg.is_unlisted)
            continue;
        pg.dat_pmt = {.ipg = static_cast<int16_t>(i), .is_pmt = true, .program = &pg};
        tc->dat_of[tc->pmt_pid[i]] = &pg.dat_pmt;
    }
}

} // namespace

ssize_t find_pid(const uint32_t *pids, size_t count, uint32_t pid)
{
    const uint32_t *end = pids + count;
    const uint32_t *found = std::find(pids, end, pid);
    return found == end ? -1 : found - pids;
}

void rebuild_pid_slots(tsan_ctx *tc)
{
    std::fill_n(tc->dat_of, PID_COUNT, &tc->dat_none);
    enter_streams(tc);
    enter_pmts(tc);
    tc->dat_of[PAT_PID_NUMBER] = &tc->dat_pat;
    // The SDT is not processed, whoever lists its PID; its tag tells who does.
    tc->dat_sdt = *tc->dat_of[SDT_PID_NUMBER];
    tc->dat_sdt.stream = nullptr;
    tc->dat_of[SDT_PID_NUMBER] = &tc->dat_sdt;
}
