#include "tsanalyze/pmt.h"

#include "tsanalyze/alert.h"
#include "tsanalyze/pids.h"
#include "tsanalyze/presence.h"
#include "tsanalyze/shortcuts.h"
#include "tsanalyze/tag.h"

#include <libtarnlink/invariant.h>
#include <libtarnlink/log.h>

#include <algorithm>
#include <memory>
#include <new>

namespace {

loglevel_ctx g_llctx;

// Makes a video stream the reference of the A/V checks, if the programme has none yet.
void choose_reference(tsan_ctx *tc, ssize_t idx, char stype, uint32_t pid)
{
    program_info *pg = prog(tc);
    if (pg->ref_idx < 0) {
        pg->ref_idx = idx;
        LOG_STMT(DEBUG_level, "%s: [%s] ref_idx=%zd for %c-stream pid=%u\n", "add_stream",
                 tc->cfg.source, pg->ref_idx, stype, pid);
    } else {
        LOG_STMT(WARN_level, "%s: 1+ video: ref_idx already set (to %zd)\n", "add_stream",
                 pg->ref_idx);
    }
}

stream_class class_of(char stype)
{
    return stype == 'V' ? CLASS_VIDEO : stype == 'A' ? CLASS_AUDIO : CLASS_DATA;
}

// Class letter by the standard's rules: audio too when descriptors say so. HDMV's own audio types
// are 0x80 to 0x86, 0xA1 and 0xA2.
char class_by_standard(uint8_t type, const pmt_hints &hints)
{
    const bool is_hdmv_audio =
        hints.is_hdmv && ((type >= 0x80 && type <= 0x86) || type == 0xA1 || type == 0xA2);
    if (is_hdmv_audio || (type == 0x06 && hints.has_audio_descriptor))
        return 'A';
    switch (type) {
    case 0x2D: // MPEG-H audio, main stream
    case 0x2E: // ... auxiliary stream
        return 'A';
    case 0x33: // VVC
        return 'V';
    default:
        return code2stype(type);
    }
}

int add_stream_of_class(tsan_ctx *tc, uint32_t pid, uint8_t scode, char stype)
{
    program_info *pg = prog(tc);
    const size_t idx = pg->nstreams;
    if (stype == '?') {
        LOG_STMT(DEBUG_level, "%s: [%s] skipping non-AV PES at %s\n", "add_stream", tc->cfg.source,
                 tag_text(tc).text);
        return -1;
    }
    if (idx >= MAX_NSTREAMS) {
        LOG_STMT(ERR_level, "%s: [%s] too many streams: %zu\n", "add_stream", tc->cfg.source,
                 pg->nstreams);
        return -1;
    }
    // The other fields stay as the slot holds them, deliberately.
    stream_info &si = pg->stm[idx];
    si.pid = pid;
    forget_plain(&si);
    si.stype = stype;
    si.scode = scode;
    si.sclass = class_of(stype);
    si.last_pts = 0;
    si.last_dts = 0;
    si.cc = {.value = -1, .ms0_tm = {}};
    if (pid == pg->pcr_pid) {
        pg->pcr_idx = static_cast<ssize_t>(idx);
        LOG_STMT(DEBUG_level, "%s: [%s] pcr_idx=%zd for %c-stream pid=%u\n", "add_stream",
                 tc->cfg.source, pg->pcr_idx, stype, pid);
    }
    if (tc->cfg.max_pdts_delta != 0 && stype == 'V')
        choose_reference(tc, static_cast<ssize_t>(idx), stype, pid);
    ++pg->nstreams;
    LOG_STMT(DEBUG_level, "%s: added stream[%d]:pid=%u (%c/%s) at %s, %zu streams total\n",
             "add_stream", static_cast<int>(idx), pid, stype, pid == pg->pcr_pid ? "PCR" : "-",
             tag_text(tc).text, pg->nstreams);
    return static_cast<int>(idx);
}

int add_pmt_stream(tsan_ctx *tc, pmt_section *pld, unsigned j, const pmt_entry &entry)
{
    LOG_STMT(INFO_level, "[%s] ADD (pid=%u, type=%u) [%s]\n", tc->cfg.source, entry.pid,
             entry.stream_type, streamtype_name(entry.stream_type));
    const char stype = tc->iso != nullptr
                           ? class_by_standard(entry.stream_type, get_pmt_hints(pld, j))
                           : code2stype(entry.stream_type);
    return add_stream_of_class(tc, entry.pid, entry.stream_type, stype);
}

// Prints the PMT as the programme's first snapshot; one that is there stays as it is.
void take_snapshot(tsan_ctx *tc, pmt_section *pld)
{
    ctxt_spec *text = &prog(tc)->txt_pmt;
    if (text->buf != nullptr)
        return;
    if (open_ctxt(text, MAX_PMT_TXT) == 0)
        print_pmt(pld, text);
    else
        LOG_STMT(ERR_level, "[%s] no memory, text of PMT not kept at %s\n", tc->cfg.source,
                 tag_text(tc).text);
}

void alert_pmt_diff(tsan_ctx *tc, uint32_t pid, const ctxt_spec *s, size_t count, uint32_t pcr_pid)
{
    program_info *pg = prog(tc);
    const tag_string tag = tag_text(tc);
    if (!tc->cfg.no_rlog)
        LOG_STMT(WARN_level, "ALERT PMT-DIFF [%s] track-count: %zu/%zu pid=%u pcr-pid=%u at %s\n",
                 tc->cfg.source, pg->nstreams, count, pid, pcr_pid, tag.text);
    if (tc->cfg.trk.pmt_diff) {
        dump_ctxt(log_fp(&g_log), "Older PMT:", &pg->txt_pmt);
        dump_ctxt(log_fp(&g_log), "New PMT:", s);
    }
    if (tc->cfg.access_log_alerts)
        log_access("ALERT PMT-DIFF %s %u %zu %zu %u %s\n", tc->cfg.source, pid, pg->nstreams, count,
                   pcr_pid, tag.text);
    ++pg->alert.pmt_diff;
    if (tells_alerts(tc))
        tell_alert(tc, TSAN_PMT_DIFF, pid,
                   {.pmt_diff = {.streams = pg->nstreams, .entries = count, .pcr_pid = pcr_pid}});
}

// For debugging: true takes every PMT for a changed one.
bool debug_pmt_cmp(const tsan_ctx * /*tc*/) { return false; }

// Prints the section and compares it with the snapshot; on a difference raises the alert and keeps
// the new text. Returns 1 on a difference, else 0.
int compare_texts(tsan_ctx *tc, std::span<const uint8_t> bytes, pmt_section *pld, uint32_t pid,
                  size_t count)
{
    program_info *pg = prog(tc);
    ctxt_spec new_txt;
    if (open_ctxt(&new_txt, MAX_PMT_TXT) != 0) {
        LOG_STMT(ERR_level, "[%s] no memory, PMT not compared at %s\n", tc->cfg.source,
                 tag_text(tc).text);
        if (tc->iso != nullptr)
            tc->iso->lacked_memory = true;
        return 0;
    }
    print_pmt(pld, &new_txt);
    // By the standard's rules only other bytes come here: what was cut off may have changed too.
    const bool is_cut = tc->iso != nullptr && is_ctxt_full(&new_txt);
    if (cmp_ctxt(&new_txt, &pg->txt_pmt) == 0 && !is_cut && !debug_pmt_cmp(tc)) {
        // The same bytes print the same text again, in silence unless it runs out of room.
        if (tc->shortcuts.quiet_pmt && !is_ctxt_full(&new_txt))
            pg->quiet_pmt.remember(bytes);
        return 0;
    }
    alert_pmt_diff(tc, pid, &new_txt, count, pmt_pcr_pid(*pld));
    replace_ctxt(&pg->txt_pmt, &new_txt);
    reset_ndat_pcount(tc);
    return 1;
}

ssize_t find_stream(const stream_info *stm, size_t count, uint32_t pid)
{
    for (size_t i = 0; i < count; ++i)
        if (stm[i].pid == pid)
            return static_cast<ssize_t>(i);
    return -1;
}

void copy_stm_stats(stream_info *ds, const stream_info *ss)
{
    ds->pcount = ss->pcount;
    ds->acount = ss->acount;
    ds->pts_updated = ss->pts_updated;
    ds->dts_updated = ss->dts_updated;
    ds->last_pts = ss->last_pts;
    ds->pts_pktnum = ss->pts_pktnum;
    ds->last_dts = ss->last_dts;
    ds->dts_pktnum = ss->dts_pktnum;
    ds->cc = ss->cc;
    ds->fingerprint = ss->fingerprint;
    ds->was_repeated = ss->was_repeated;
    ds->pts_base = ss->pts_base;
    ds->dts_base = ss->dts_base;
}

} // namespace

char code2stype(uint8_t scode)
{
    switch (scode) {
    case 0x01: // MPEG-1 video
    case 0x02: // MPEG-2 video
    case 0x10: // MPEG-4 part 2
    case 0x1B: // H.264
    case 0x24: // HEVC
    case 0x42: // AVS video
        return 'V';
    case 0x03: // MPEG-1 audio
    case 0x04: // MPEG-2 audio
    case 0x0F: // AAC, ADTS
    case 0x11: // AAC, LATM
    case 0x81: // AC-3
    case 0x87: // E-AC-3
        return 'A';
    case 0x06: // private data in PES packets
        return 'S';
    default:
        return '?';
    }
}

int add_stream(tsan_ctx *tc, uint32_t pid, uint8_t scode)
{
    return add_stream_of_class(tc, pid, scode, code2stype(scode));
}

void process_PMT(tsan_ctx *tc, std::span<const uint8_t> bytes, uint32_t pid)
{
    program_info *pg = prog(tc);
    pmt_section pld(bytes);
    LOG_STMT(INFO_level, "Adding streams from PMT (pid%u) at %s\n", pid, tag_text(tc).text);
    pg->pcr_pid = pmt_pcr_pid(pld);
    LOG_STMT(INFO_level, "[%s] PMT lists PCR pid=%u at %s\n", tc->cfg.source, pg->pcr_pid,
             tag_text(tc).text);
    if (tc->iso == nullptr)
        INVARIANT(prog(tc)->pcr_pid);

    size_t count = 0;
    pmt_entry entry{};
    for (unsigned j = 0; j < MAX_PMT_ENTRIES && get_pmt_entry(&pld, j, &entry); ++j)
        if (add_pmt_stream(tc, &pld, j, entry) != -1)
            ++count;
    rebuild_pid_slots(tc);
    forget_plain_of_shared(tc);
    LOG_STMT(INFO_level, "Added %zu streams from PMT (pid%u) at %s\n", count, pid,
             tag_text(tc).text);
    if (count != 0)
        pg->curr_pmt_pid = pid;
    take_snapshot(tc, &pld);
    if (tc->cfg.trk.pmt_diff) {
        LOG_STMT(INFO_level, "%s: PMT pid=%u, %zu entries\n", __func__, pid, count);
        dump_ctxt(log_fp(&g_log), "Using PMT:", &pg->txt_pmt);
    }
}

int cmp_PMT(tsan_ctx *tc, std::span<const uint8_t> bytes, uint32_t pid)
{
    program_info *pg = prog(tc);
    pg->quiet_pmt.forget();

    pmt_section pld(bytes);
    size_t count = 0;
    for (pmt_entry entry{};
         count < MAX_PMT_ENTRIES && get_pmt_entry(&pld, static_cast<unsigned>(count), &entry);)
        ++count;
    const int differs = compare_texts(tc, bytes, &pld, pid, count);
    if (tc->cfg.trk.pmt_diff)
        LOG_STMT(INFO_level, "%s: %s pid=%u %zu/%zu\n", __func__, differs == 1 ? "MISMATCH" : "ok",
                 pid, pg->nstreams, count);
    return differs;
}

void update_PMT(tsan_ctx *tc, std::span<const uint8_t> bytes, uint32_t pid)
{
    program_info *pg = prog(tc);
    const size_t old_n = pg->nstreams;
    const std::unique_ptr<stream_info[]> old(new (std::nothrow) stream_info[old_n]);
    if (old == nullptr) {
        LOG_STMT(ERR_level, "[%s] no memory, streams of PMT not used at %s\n", tc->cfg.source,
                 tag_text(tc).text);
        if (tc->iso != nullptr) { // its repetition will differ again
            tc->iso->lacked_memory = true;
            close_ctxt(&pg->txt_pmt);
        }
        return;
    }
    for (size_t i = 0; i < old_n; ++i)
        forget_plain(&pg->stm[i]);
    std::copy_n(pg->stm, old_n, old.get());
    if (tc->iso != nullptr) { // nothing of other streams stays
        std::fill_n(pg->stm, old_n, stream_info{});
        pg->pcr_idx = pg->ref_idx = -1;
    }
    pg->nstreams = 0;
    process_PMT(tc, bytes, pid);

    size_t matched = 0;
    for (size_t i = 0; i < pg->nstreams; ++i) {
        const ssize_t j = find_stream(old.get(), old_n, pg->stm[i].pid);
        if (j < 0)
            continue;
        copy_stm_stats(&pg->stm[i], &old[static_cast<size_t>(j)]);
        ++matched;
        LOG_STMT(DEBUG_level, "%s: copied stats from old[%d] to new[%zu]\n", __func__,
                 static_cast<int>(j), i);
    }
    LOG_STMT(DEBUG_level, "%s: %zu old/new entries matched\n", __func__, matched);
}
