#include "tsanalyze/packet.h"

#include "misc/mstime.h"
#include "tsanalyze/pat.h"
#include "tsanalyze/pmt.h"
#include "tsanalyze/presence.h"

#include <libtarnlink/log.h>

#include <cstdint>
#include <span>

namespace {

loglevel_ctx g_llctx;

// Whether a table packet holds a section's header. One that does not changes nothing.
bool holds_header(const tsan_ctx *tc, std::span<const uint8_t> section, size_t header_len)
{
    if (section.size() >= header_len)
        return true;
    LOG_STMT(DEBUG_level, "%s: [%s] no section header in %zu bytes, ignored at %s\n",
             "upsert_pkt_info", tc->cfg.source, section.size(), tag_text(tc).text);
    return false;
}

// ---- PES time stamps (ISO/IEC 13818-1, 2.4.3.6)

constexpr size_t PES_FLAGS_AT = 7; // PTS_DTS_flags
constexpr size_t PES_PTS_AT = 9;
constexpr size_t PES_DTS_AT = 14;
constexpr size_t PES_STAMP_LEN = 5;

bool is_pes_pkt(std::span<const uint8_t> pes)
{
    return pes.size() >= 3 && pes[0] == 0 && pes[1] == 0 && pes[2] == 1;
}

// A header or a time stamp that is not wholly inside the packet is not there.
bool pes_has_PTS(std::span<const uint8_t> pes)
{
    return pes.size() >= PES_PTS_AT + PES_STAMP_LEN && (pes[PES_FLAGS_AT] & 0x80) != 0;
}

bool pes_has_DTS(std::span<const uint8_t> pes)
{
    return pes.size() >= PES_DTS_AT + PES_STAMP_LEN && (pes[PES_FLAGS_AT] & 0xC0) == 0xC0;
}

// The 33 bits of a time stamp, spread over five bytes with marker bits.
inline uint64_t stamp_at(std::span<const uint8_t> pes, size_t at)
{
    return (pes[at] & 0x0Eull) << 29 | uint64_t{pes[at + 1]} << 22 | (pes[at + 2] & 0xFEull) << 14 |
           uint64_t{pes[at + 3]} << 7 | uint64_t{pes[at + 4]} >> 1;
}

// Whether to write the trace line of a time stamp: only where debug lines are written too.
bool traces_stamps(const tsan_ctx *tc, bool updated)
{
    return updated && tc->cfg.trk.pdts_update && log_emits(&g_llctx, DEBUG_level);
}

void update_pts_dts(tsan_ctx *tc, std::span<const uint8_t> pes, stream_info *si)
{
    if (pes_has_PTS(pes)) {
        const uint64_t pts = stamp_at(pes, PES_PTS_AT);
        si->pts_updated = pts != si->last_pts;
        si->last_pts = pts;
        si->pts_pktnum = tc->last_pkt_idx;
        if (traces_stamps(tc, si->pts_updated))
            LOG_STMT(INFO_level, "%s: [%s] PTS=%lu [%s] pid=%u at %s\n", __func__, tc->cfg.source,
                     pts, ticks_timestr(pts).text, si->pid, tag_text(tc).text);
    }
    if (pes_has_DTS(pes)) {
        const uint64_t dts = stamp_at(pes, PES_DTS_AT);
        si->dts_updated = dts != si->last_dts;
        si->last_dts = dts;
        si->dts_pktnum = tc->last_pkt_idx;
        if (traces_stamps(tc, si->dts_updated))
            LOG_STMT(INFO_level, "%s: [%s] DTS=%lu [%s] pid=%u at %s\n", __func__, tc->cfg.source,
                     dts, ticks_timestr(dts).text, si->pid, tag_text(tc).text);
    }
}

} // namespace

// ---- Bookkeeping

void take_sdt(const tsan_ctx *tc)
{
    if (tc->cfg.trk.sdt_ignore)
        LOG_STMT(INFO_level, "[%s] disregarding SDT at %s\n", tc->cfg.source, tag_text(tc).text);
}

void trace_table(const tsan_ctx *tc)
{
    if (!tc->cfg.trk.pat_pmt_pkt)
        return;
    if (tc->dat->is_pat)
        LOG_STMT(INFO_level, "[%s] found PAT at %s\n", tc->cfg.source, tag_text(tc).text);
    else
        LOG_STMT(INFO_level, "[%s] found PMT (pid%u) at %s\n", tc->cfg.source, hdr_pid(tc->header),
                 tag_text(tc).text);
}

void take_pat(tsan_ctx *tc)
{
    trace_table(tc);
    const auto section = ts_section_bytes(tc->header, tc->pkt);
    if (!holds_header(tc, section, PAT_HEADER_LEN) || tc->quiet_pat.matches(section))
        return;
    if (tc->nprogs != 0) {
        another_PAT(tc, section);
    } else {
        LOG_STMT(INFO_level, "[%s] using PAT (pid%u) at %s\n", tc->cfg.source, PAT_PID_NUMBER,
                 tag_text(tc).text);
        process_PAT(tc, section);
    }
}

void track_PMT(tsan_ctx *tc, std::span<const uint8_t> section)
{
    const uint32_t pid = hdr_pid(tc->header);
    if (prog(tc)->nstreams != 0 || (tc->iso != nullptr && prog(tc)->txt_pmt.buf != nullptr)) {
        if (cmp_PMT(tc, section, pid) != 0)
            update_PMT(tc, section, pid);
    } else {
        LOG_STMT(INFO_level, "[%s] will use PMT (pid%u) at %s\n", tc->cfg.source, pid,
                 tag_text(tc).text);
        process_PMT(tc, section, pid);
        if (tc->iso != nullptr && tc->ndat_pcount == 0)
            reset_ndat_pcount(tc); // its streams were not looked for yet
    }
}

void take_pmt(tsan_ctx *tc)
{
    trace_table(tc);
    const auto section = ts_section_bytes(tc->header, tc->pkt);
    if (holds_header(tc, section, PMT_HEADER_LEN) && !prog(tc)->quiet_pmt.matches(section))
        track_PMT(tc, section);
}

void store_pcr(tsan_ctx *tc, uint64_t pcr)
{
    program_info *pg = prog(tc);
    pg->last_pcr = pcr;
    pg->pcr_pktnum = tc->last_pkt_idx;
    pg->pcr_ptag = tc->ptag;
    pg->got_pcr = true;
    if (tc->cfg.trk.pcr_update)
        LOG_STMT(INFO_level, "[%s] new PCR=%lu [%s] at %s\n", tc->cfg.source, pcr,
                 ticks_timestr(pcr).text, tag_text(tc).text);
}

void take_pcr(tsan_ctx *tc)
{
    const uint64_t pcr = ts_pcr_base(tc->pkt);
    mk_ptag(tc);
    if (tc->cfg.pcr_freq_ms != 0 && prog(tc)->last_pcr != 0)
        pcr_freq_check(tc, pcr);
    store_pcr(tc, pcr);
}

void trace_ignored(const tsan_ctx *tc)
{
    LOG_STMT(INFO_level, "%s: [%s] ignoring pid=%u %s\n", "upsert_pkt_info", tc->cfg.source,
             hdr_pid(tc->header), tag_text(tc).text);
}

void take_pes_header(tsan_ctx *tc)
{
    const auto pes = ts_get_payload(tc->header, tc->pkt);
    if (is_pes_pkt(pes))
        update_pts_dts(tc, pes, tc->dat->stream);
}

// ---- Checks

void begin_analysis(tsan_ctx *tc)
{
    expect_nothing(tc);
    tc->pre_skipped = tc->ptotal - 1;
    LOG_STMT(INFO_level, "%s: %lu skipped before analysis\n", "analyze_pkt", tc->pre_skipped);
}
