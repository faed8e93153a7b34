#include "tsanalyze/pids.h"

#include <algorithm>

namespace {

void enter_streams(tsan_ctx *tc)
{
    // Backwards, so that the first to list a PID is the last to write its slot.
    for (size_t ip = tc->nprogs; ip-- > 0;) {
        program_info &pg = tc->pg[ip];
        for (size_t is = pg.nstreams; is-- > 0;) {
            stream_info &si = pg.stm[is];
            si.dat = {.ipg = static_cast<int16_t>(ip),
                      .istm = static_cast<int16_t>(is),
                      .program = &pg,
                      .stream = &si};
            tc->dat_of[si.pid] = &si.dat;
        }
    }
}

void enter_pmts(tsan_ctx *tc)
{
    const ssize_t end = find_pid(tc->pmt_pid, MAX_PMTS, 0);
    for (ssize_t i = end < 0 ? ssize_t{MAX_PMTS} : end; i-- > 0;) {
        program_info &pg = tc->pg[i];
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
    tc->dat_of[SDT_PID_NUMBER] = &tc->dat_sdt;
    enter_streams(tc);
    enter_pmts(tc);
    tc->dat_of[PAT_PID_NUMBER] = &tc->dat_pat;
}
