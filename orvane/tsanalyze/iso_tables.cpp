#include "tsanalyze/iso_tables.h"

#include "tsanalyze/packet.h"
#include "tsanalyze/pat.h"
#include "tsanalyze/pids.h"
#include "tsanalyze/presence.h"
#include "tsanalyze/shortcuts.h"

#include <libtarnlink/log.h>

#include <algorithm>
#include <new>
#include <utility>

namespace {

loglevel_ctx g_llctx;

constexpr uint8_t PAT_TABLE_ID = 0x00;
constexpr uint8_t PMT_TABLE_ID = 0x02;
constexpr uint32_t FIRST_PMT_PID = 0x10; // lower ones are reserved (table 2-3)

// The programmes of a PAT, each once.
struct program_list {
    program_entry entries[MAX_PMTS];
    size_t count;
    size_t ndropped; // for want of room

    bool has(const program_entry &e) const
    {
        return std::any_of(entries, entries + count, [&e](const program_entry &other) {
            return e.number == other.number && e.pid == other.pid;
        });
    }
};

program_list read_list(const tsan_ctx *tc, const psi_block &pat)
{
    program_list list{};
    program_entry entry{};
    for (unsigned s = 0; s < std::size(pat.sec); ++s)
        for (unsigned j = 0; j < 256 && get_pat_entry(pat, s, j, &entry); ++j) {
            if (entry.number == 0 || list.has(entry))
                continue;
            if (entry.pid < FIRST_PMT_PID || entry.pid == NULL_PID_NUMBER)
                LOG_STMT(ERR_level, "%s: [%s] program %u on pid%u, ignored at %s\n", "process_PAT",
                         tc->cfg.source, entry.number, entry.pid, tag_text(tc).text);
            else if (list.count < MAX_PMTS)
                list.entries[list.count++] = entry;
            else
                ++list.ndropped;
        }
    return list;
}

// Takes a programme off the list. What was measured of it stays in the report.
void unlist(tsan_ctx *tc, size_t slot)
{
    program_info &pg = tc->pg[slot];
    pg.is_unlisted = true;
    for (stream_info &si : std::span(pg.stm, pg.nstreams)) {
        forget_plain(&si);
        si.cc.value = -1;
    }
    pg.got_pcr = false;
    ++pg.time_base; // nothing is known of what comes in between
    pg.awaits_base = false;
}

// The slot for a programme: its own of before, a new one, or that of one no longer listed.
size_t find_slot(const tsan_ctx *tc, const program_entry &entry)
{
    for (size_t i = 0; i < tc->nprogs; ++i)
        if (tc->pg[i].number == entry.number && tc->pmt_pid[i] == entry.pid)
            return i;
    if (tc->nprogs < MAX_PMTS)
        return tc->nprogs;
    const auto is_free = [](const program_info &pg) { return pg.is_unlisted; };
    return static_cast<size_t>(std::find_if(tc->pg, tc->pg + MAX_PMTS, is_free) - tc->pg);
}

// Lists a programme. Returns false when it was listed already.
bool enlist(tsan_ctx *tc, const program_entry &entry)
{
    const size_t slot = find_slot(tc, entry);
    program_info &pg = tc->pg[slot];
    const bool is_known =
        slot < tc->nprogs && pg.number == entry.number && tc->pmt_pid[slot] == entry.pid;
    if (is_known && !pg.is_unlisted)
        return false;
    if (!is_known) {
        section_gatherer &old = tc->iso->pmt_sections[slot];
        for (size_t fault = 0; fault < SECTION_FAULTS; ++fault)
            tc->iso->refused[tc->pmt_pid[slot]][fault] += old.refused()[fault];
        old = {};
        tc->iso->pmt_bytes[slot].forget();
        pg = {};
        pg.number = entry.number;
        tc->pmt_pid[slot] = entry.pid;
        tc->nprogs = std::max(tc->nprogs, slot + 1);
    }
    tc->iso->pmt_sections[slot].reset();
    pg.is_unlisted = false;
    return true;
}

size_t count_listed(const tsan_ctx *tc)
{
    return static_cast<size_t>(std::count_if(
        tc->pg, tc->pg + tc->nprogs, [](const program_info &pg) { return !pg.is_unlisted; }));
}

// Makes the context's list that of a complete PAT.
void use_pat(tsan_ctx *tc, const psi_block &pat)
{
    const bool is_first = !tc->iso->has_pat;
    const program_list list = read_list(tc, pat);
    size_t ndel = 0;
    for (size_t i = 0; i < tc->nprogs; ++i)
        if (!tc->pg[i].is_unlisted && !list.has({tc->pg[i].number, tc->pmt_pid[i]})) {
            report_missing(tc, tc->pmt_pid[i]);
            unlist(tc, i);
            ++ndel;
        }
    size_t nadded = 0;
    for (const program_entry &entry : std::span(list.entries, list.count)) {
        if (!enlist(tc, entry))
            continue;
        if (is_first)
            LOG_STMT(INFO_level, "[%s] PRG[%zu] pmt[%u] pid=%u at %s\n", tc->cfg.source, nadded,
                     entry.number, entry.pid, tag_text(tc).text);
        else
            report_added(tc, entry.pid);
        ++nadded;
    }
    report_dropped(tc, list.ndropped);
    tc->iso->has_pat = true;
    if (nadded == 0 && ndel == 0)
        return;
    for (section_gatherer &sections : tc->iso->pmt_sections)
        sections.unsettle();
    rebuild_pid_slots(tc);
    forget_plain_of_shared(tc);
    if (!is_first) {
        alert_pat_diff(tc, nadded, ndel, count_listed(tc));
        reset_ndat_pcount(tc);
    }
}

// Takes a section that is not held yet.
void gather_pat(tsan_ctx *tc, std::span<const uint8_t> section)
{
    if (tc->new_pat == nullptr)
        tc->new_pat.reset(new (std::nothrow) psi_block);
    if (tc->new_pat == nullptr)
        return report_unused_pat(tc);
    if (!tc->iso->has_pat)
        LOG_STMT(INFO_level, "[%s] using PAT (pid%u) at %s\n", tc->cfg.source, PAT_PID_NUMBER,
                 tag_text(tc).text);
    if (!add_section(tc->new_pat.get(), psi_section(section)))
        report_unused_pat(tc);
    if (!tc->new_pat->is_complete)
        return;
    if (!tc->iso->has_pat || !tables_equal(tc->pat, *tc->new_pat))
        use_pat(tc, *tc->new_pat);
    std::swap(tc->pat.sec, tc->new_pat->sec);
    tc->new_pat.reset();
}

// The slot of the programme whose PMT a section on this PID is; MAX_PMTS: of none.
size_t program_of(const tsan_ctx *tc, std::span<const uint8_t> section)
{
    for (size_t i = 0; i < tc->nprogs; ++i)
        if (!tc->pg[i].is_unlisted && tc->pmt_pid[i] == hdr_pid(tc->header) &&
            tc->pg[i].number == section_extension(section))
            return i;
    return MAX_PMTS;
}

// Takes a whole PMT. Returns false when the same again will be no news.
bool take_pmt_section(tsan_ctx *tc, std::span<const uint8_t> section)
{
    const size_t slot = program_of(tc, section);
    if (slot == MAX_PMTS) {
        LOG_STMT(DEBUG_level, "[%s] PMT (pid%u) of program %u, which is not listed, at %s\n",
                 tc->cfg.source, hdr_pid(tc->header), section_extension(section),
                 tag_text(tc).text);
        return true;
    }
    section_image &latest = tc->iso->pmt_bytes[slot];
    if (latest.matches(section) && !tc->cfg.trk.pmt_diff)
        return false;
    change_user(tc, &tc->pg[slot].dat_pmt);
    tc->iso->lacked_memory = false;
    track_PMT(tc, section);
    if (!tc->iso->lacked_memory)
        latest.remember(section);
    return true;
}

bool is_pmt(std::span<const uint8_t> section)
{
    return section_table_id(section) == PMT_TABLE_ID && section_is_current(section) &&
           section_number(section) == 0 && section_last_number(section) == 0 &&
           section.size() >= PMT_HEADER_LEN + 4; // the CRC
}

// Takes a packet of the PAT. Returns false when the same again will be no news.
bool take_pat_packet(tsan_ctx *tc, section_gatherer *sections)
{
    sections->take(tc->header, tc->pkt);
    bool is_news = false;
    for (auto s = sections->next(); !s.empty(); s = sections->next()) {
        if (section_table_id(s) != PAT_TABLE_ID || !section_is_current(s))
            continue;
        // The same again is nothing new, unless another PAT has begun.
        if (tc->new_pat == nullptr && holds_section(tc->pat, s))
            continue;
        gather_pat(tc, s);
        is_news = true;
    }
    return is_news;
}

bool take_pmt_packet(tsan_ctx *tc, section_gatherer *sections)
{
    const dgram_info *first = tc->dat;
    sections->take(tc->header, tc->pkt);
    bool is_news = false;
    for (auto s = sections->next(); !s.empty(); s = sections->next())
        is_news = (is_pmt(s) && take_pmt_section(tc, s)) || is_news;
    change_user(tc, first);
    return is_news;
}

} // namespace

void take_table_by_standard(tsan_ctx *tc)
{
    const dgram_info &dat = *tc->dat;
    section_gatherer *sections =
        dat.is_pat ? &tc->iso->pat_sections : &tc->iso->pmt_sections[dat.ipg];
    if (tc->cfg.trk.pat_pmt_pkt)
        trace_table(tc);
    if (sections->take_again(tc->header, tc->pkt)) [[likely]]
        return;
    const bool can_settle = dat.is_pat ? tc->shortcuts.quiet_pat : tc->shortcuts.quiet_pmt;
    const bool is_news = dat.is_pat ? take_pat_packet(tc, sections) : take_pmt_packet(tc, sections);
    if (can_settle && !is_news)
        sections->settle();
}
