#include "tsanalyze/pat.h"

#include "tsanalyze/alert.h"
#include "tsanalyze/pids.h"
#include "tsanalyze/presence.h"
#include "tsanalyze/tag.h"

#include <libtarnlink/invariant.h>
#include <libtarnlink/log.h>

#include <algorithm>
#include <new>

namespace {

loglevel_ctx g_llctx;

// A PMT PID list while a PAT of up to 256 sections is merged into it; it may be longer than the
// context's for a moment.
struct pid_list {
    size_t count;
    uint32_t pids[MAX_PMTS + 256 * MAX_SECTION_ENTRIES];
    uint32_t mark[MAX_PMTS + 256 * MAX_SECTION_ENTRIES]; // old PIDs not seen in the new PAT yet;
                                                         // 0: seen, or new
};

void dump_pat(tsan_ctx *tc, const char *msg, psi_block *psec)
{
    if (msg != nullptr)
        LOG_STMT(INFO_level, "[%s] %s\n", tc->cfg.source, msg);
    print_pat(psec, log_fp(&g_log));
}

// Appends what the new PAT lists and the list does not; returns how many.
size_t append_added(tsan_ctx *tc, pid_list *list, unsigned last_section)
{
    size_t nadded = 0;
    program_entry entry{};
    for (unsigned s = 0; s <= last_section; ++s)
        for (unsigned j = 0; j < MAX_SECTION_ENTRIES && get_pat_entry(*tc->new_pat, s, j, &entry);
             ++j) {
            const ssize_t k = find_pid(list->mark, list->count, entry.pid);
            if (k >= 0) {
                list->mark[k] = 0;
                continue;
            }
            list->pids[list->count] = entry.pid;
            list->mark[list->count++] = 0;
            report_added(tc, entry.pid);
            ++nadded;
        }
    return nadded;
}

// Drops the old PIDs that are still marked and moves the others up; returns how many.
size_t drop_missing(tsan_ctx *tc, pid_list *list, size_t old_nprogs)
{
    size_t ndel = 0;
    for (size_t i = 0; i < list->count; ++i) {
        if (i < old_nprogs && list->mark[i] != 0) {
            report_missing(tc, list->pids[i]);
            ++ndel;
        } else {
            list->pids[i - ndel] = list->pids[i];
        }
    }
    list->count -= ndel;
    return ndel;
}

// Applies a complete new PAT that differs from the kept one. Returns whether it changed the list.
bool merge_PATs(tsan_ctx *tc, const psi_section &pld)
{
    const size_t old_nprogs = tc->nprogs;
    pid_list list;
    list.count = old_nprogs;
    std::copy_n(tc->pmt_pid, old_nprogs, list.pids);
    std::copy_n(tc->pmt_pid, old_nprogs, list.mark);
    const size_t nadded = append_added(tc, &list, psi_last_section(pld));
    const size_t ntouched = std::min<size_t>(list.count, MAX_PMTS);
    const size_t ndel = drop_missing(tc, &list, old_nprogs);

    tc->nprogs = list.count;
    INVARIANT(tc->nprogs < MAX_PMTS);
    std::copy_n(list.pids, ntouched, tc->pmt_pid);
    tc->pmt_pid[tc->nprogs] = 0; // behind it PIDs of the longer list may stand
    rebuild_pid_slots(tc);
    if (nadded == 0 && ndel == 0)
        return false;
    alert_pat_diff(tc, nadded, ndel, tc->nprogs);
    reset_ndat_pcount(tc);
    return true;
}

} // namespace

void report_added(const tsan_ctx *tc, uint32_t pid)
{
    LOG_STMT(WARN_level, "[%s] pid%u ADDED in new PAT\n", tc->cfg.source, pid);
}

void report_missing(const tsan_ctx *tc, uint32_t pid)
{
    LOG_STMT(WARN_level, "[%s] pid%u MISSING in new PAT\n", tc->cfg.source, pid);
}

void report_dropped(const tsan_ctx *tc, size_t ndropped)
{
    if (ndropped > 0)
        LOG_STMT(ERR_level, "%s: [%s] too many programs: %zu over %d dropped at %s\n",
                 "process_PAT", tc->cfg.source, ndropped, MAX_PMTS, tag_text(tc).text);
}

void alert_pat_diff(tsan_ctx *tc, size_t nadded, size_t ndel, size_t nprogs)
{
    const tag_string tag = tag_text(tc);
    if (!tc->cfg.no_rlog)
        LOG_STMT(WARN_level, "ALERT PAT-DIFF [%s] PMTs added/deleted: %zu/%zu progs=%zu at %s\n",
                 tc->cfg.source, nadded, ndel, nprogs, tag.text);
    if (tc->cfg.trk.pat_diff) {
        dump_pat(tc, "Older PAT:", &tc->pat);
        dump_pat(tc, "New PAT:", tc->new_pat.get());
    }
    if (tc->cfg.access_log_alerts) // the programme count comes first here
        log_access("ALERT PAT-DIFF %s 0 %zu %zu %zu %s\n", tc->cfg.source, nprogs, nadded, ndel,
                   tag.text);
    ++tc->gac.pat_diff;
    if (tells_alerts(tc))
        tell_alert(tc, TSAN_PAT_DIFF, 0,
                   {.pat_diff = {.programmes = nprogs, .added = nadded, .deleted = ndel}});
}

void report_unused_pat(const tsan_ctx *tc)
{
    LOG_STMT(ERR_level, "[%s] no memory, PAT not used at %s\n", tc->cfg.source, tag_text(tc).text);
}

void process_PAT(tsan_ctx *tc, std::span<const uint8_t> bytes)
{
    const psi_section pld(bytes);
    if (!add_section(&tc->pat, pld))
        report_unused_pat(tc);
    if (!tc->pat.is_complete) {
        LOG_STMT(DEBUG_level, "%s: (%p) not all sections gathered yet\n", __func__,
                 static_cast<void *>(tc));
        return;
    }
    INVARIANT(0 == tc->nprogs);
    size_t ndropped = 0;
    program_entry entry{};
    for (unsigned s = 0; s <= psi_last_section(pld); ++s)
        for (unsigned j = 0; j < MAX_SECTION_ENTRIES && get_pat_entry(tc->pat, s, j, &entry); ++j) {
            if (tc->nprogs >= MAX_PMTS) {
                ++ndropped;
                continue;
            }
            tc->pmt_pid[tc->nprogs] = entry.pid;
            INVARIANT(tc->pmt_pid[tc->nprogs]);
            // The PID shown is that at the entry's place within its section, intended.
            LOG_STMT(INFO_level, "[%s] PRG[%zu] pmt[%u] pid=%u at %s\n", tc->cfg.source, tc->nprogs,
                     j, tc->pmt_pid[j], tag_text(tc).text);
            ++tc->nprogs;
        }
    report_dropped(tc, ndropped);
    rebuild_pid_slots(tc);
    LOG_STMT(DEBUG_level, "%s: [%s] %zu programs read from PAT (%u sections) at %s\n", __func__,
             tc->cfg.source, tc->nprogs, psi_last_section(pld) + 1, tag_text(tc).text);
    INVARIANT(tc->nprogs);
}

void another_PAT(tsan_ctx *tc, std::span<const uint8_t> bytes)
{
    tc->quiet_pat.forget();
    const psi_section pld(bytes);
    if (tc->new_pat == nullptr)
        tc->new_pat.reset(new (std::nothrow) psi_block);
    if (tc->new_pat == nullptr)
        return report_unused_pat(tc);
    if (tc->cfg.trk.pat_pmt_pkt)
        LOG_STMT(INFO_level, "%s: (%p) new PAT is being compiled at %s\n", __func__,
                 static_cast<void *>(tc), tag_text(tc).text);
    if (!add_section(tc->new_pat.get(), pld))
        report_unused_pat(tc);
    if (!tc->new_pat->is_complete) {
        LOG_STMT(DEBUG_level, "%s: (%p) not all sections gathered yet at %s\n", __func__,
                 static_cast<void *>(tc), tag_text(tc).text);
        return;
    }
    if (tc->cfg.trk.pat_pmt_pkt)
        LOG_STMT(INFO_level, "%s: new PAT ready for comparison at %s\n", __func__,
                 tag_text(tc).text);
    const bool changed = !tables_equal(tc->pat, *tc->new_pat) && merge_PATs(tc, pld);
    tc->new_pat.reset();
    // A table in one section that changed nothing will change nothing when it is repeated.
    if (tc->shortcuts.quiet_pat && !changed && psi_last_section(pld) == 0)
        tc->quiet_pat.remember(bytes);
}
