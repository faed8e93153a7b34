#include "tsanalyze/packet.h"

#include "misc/mstime.h"
#include "tsanalyze/pat.h"
#include "tsanalyze/pmt.h"
#include "tsanalyze/timing.h"

#include <libtarnlink/log.h>

#include <algorithm>
#include <charconv>
#include <string_view>

namespace {

loglevel_ctx g_llctx;

constexpr size_t TAG_SIZE = PKTIDX_LEN - 1; // a tag has 62 characters at most

// A tag is made for every alert: its pieces are put together without the formatter.
struct tag_writer {
    char *at;
    char *end; // where the terminating zero must stand at the latest

    void put(std::string_view piece)
    {
        const size_t len = std::min(piece.size(), static_cast<size_t>(end - at));
        at = std::copy_n(piece.begin(), len, at);
    }
    void put(uint64_t number)
    {
        char digits[20];
        const auto last = std::to_chars(digits, digits + sizeof digits, number);
        put({digits, static_cast<size_t>(last.ptr - digits)});
    }
    void put(int16_t index)
    {
        if (index < 0)
            put("-1");
        else
            put(static_cast<uint64_t>(index));
    }
};

} // namespace

// PAT[n], 0:M[n], pkt[n] or 0:1[n], then :(pcr=ticks)+packets
tag_string tag_text(const packet_tag &tag)
{
    tag_string result;
    tag_writer out{result.text, result.text + TAG_SIZE - 1};
    if (tag.is_pat) {
        out.put("PAT[");
    } else if (tag.ipg == -1) {
        out.put("pkt[");
    } else {
        out.put(tag.ipg);
        out.put(":");
        if (tag.is_pmt)
            out.put("M");
        else
            out.put(tag.istm);
        out.put("[");
    }
    out.put(tag.pkt_idx);
    out.put("]");
    if (tag.has_pcr) {
        out.put(":(pcr=");
        out.put(tag.last_pcr);
        out.put(")+");
        out.put(tag.pcr_age);
    }
    *out.at = '\0';
    return result;
}

static packet_tag current_tag(const tsan_ctx *tc)
{
    if (tc->ptag_at == tc->ptotal)
        return tc->ptag;
    const dgram_info &dat = *tc->dat;
    packet_tag tag{.pkt_idx = tc->last_pkt_idx,
                   .last_pcr = 0,
                   .pcr_age = 0,
                   .ipg = dat.ipg,
                   .istm = dat.istm,
                   .is_pat = dat.is_pat,
                   .is_pmt = dat.is_pmt,
                   .has_pcr = dat.program != nullptr && dat.program->got_pcr};
    if (tag.has_pcr) {
        tag.last_pcr = dat.program->last_pcr;
        tag.pcr_age = tc->last_pkt_idx - dat.program->pcr_pktnum;
    }
    return tag;
}

tag_string tag_text(const tsan_ctx *tc)
{
    return tc->ptotal == 0 ? tag_string{} : tag_text(current_tag(tc));
}

void mk_ptag(tsan_ctx *tc)
{
    tc->ptag = current_tag(tc);
    tc->ptag_at = tc->ptotal;
}

// ---- Bookkeeping

void take_sdt(tsan_ctx *tc)
{
    if (tc->cfg.trk.sdt_ignore)
        LOG_STMT(INFO_level, "[%s] disregarding SDT at %s\n", tc->cfg.source, tag_text(tc).text);
}

// Whether a table packet holds a section's header. One that does not changes nothing.
static bool holds_section(const tsan_ctx *tc, std::span<const uint8_t> section, size_t header_len)
{
    if (section.size() >= header_len)
        return true;
    LOG_STMT(DEBUG_level, "%s: [%s] no section header in %zu bytes, ignored at %s\n",
             "upsert_pkt_info", tc->cfg.source, section.size(), tag_text(tc).text);
    return false;
}

void take_pat(tsan_ctx *tc, const uint8_t *pkt)
{
    if (tc->cfg.trk.pat_pmt_pkt)
        LOG_STMT(INFO_level, "[%s] found PAT at %s\n", tc->cfg.source, tag_text(tc).text);
    const auto section = ts_section_bytes(pkt);
    if (!holds_section(tc, section, PAT_HEADER_LEN))
        return;
    if (tc->nprogs != 0) {
        another_PAT(tc, section);
    } else {
        LOG_STMT(INFO_level, "[%s] using PAT (pid%u) at %s\n", tc->cfg.source, PAT_PID_NUMBER,
                 tag_text(tc).text);
        process_PAT(tc, section);
    }
}

void take_pmt(tsan_ctx *tc, uint32_t pid, const uint8_t *pkt)
{
    if (tc->cfg.trk.pat_pmt_pkt)
        LOG_STMT(INFO_level, "[%s] found PMT (pid%u) at %s\n", tc->cfg.source, pid,
                 tag_text(tc).text);
    const auto section = ts_section_bytes(pkt);
    if (!holds_section(tc, section, PMT_HEADER_LEN))
        return;
    if (prog(tc)->nstreams != 0) {
        if (cmp_PMT(tc, section, pid) != 0)
            update_PMT(tc, section, pid);
    } else {
        LOG_STMT(INFO_level, "[%s] will use PMT (pid%u) at %s\n", tc->cfg.source, pid,
                 tag_text(tc).text);
        process_PMT(tc, section, pid);
    }
}

void take_pcr(tsan_ctx *tc, const uint8_t *pkt)
{
    program_info *pg = prog(tc);
    const uint64_t pcr = ts_pcr_base(pkt);
    mk_ptag(tc);
    if (tc->cfg.pcr_freq_ms != 0 && pg->last_pcr != 0)
        pcr_freq_check(tc, pcr);
    pg->last_pcr = pcr;
    pg->pcr_pktnum = tc->last_pkt_idx;
    pg->pcr_ptag = tc->ptag;
    pg->got_pcr = true;
    if (tc->cfg.trk.pcr_update)
        LOG_STMT(INFO_level, "[%s] new PCR=%lu [%s] at %s\n", tc->cfg.source, pcr,
                 ticks_timestr(pcr).text, tag_text(tc).text);
}

void trace_ignored(tsan_ctx *tc, uint32_t pid)
{
    LOG_STMT(INFO_level, "%s: [%s] ignoring pid=%u %s\n", "upsert_pkt_info", tc->cfg.source, pid,
             tag_text(tc).text);
}

// ---- PES time stamps (ISO/IEC 13818-1, 2.4.3.6)

namespace {

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
uint64_t stamp_at(std::span<const uint8_t> pes, size_t at)
{
    return (pes[at] & 0x0Eull) << 29 | uint64_t{pes[at + 1]} << 22 | (pes[at + 2] & 0xFEull) << 14 |
           uint64_t{pes[at + 3]} << 7 | uint64_t{pes[at + 4]} >> 1;
}

// Whether to write the trace line of a time stamp: only where debug lines are written too.
bool traces_stamps(const tsan_ctx *tc, bool updated)
{
    return updated && tc->cfg.trk.pdts_update && log_emits(g_llctx, DEBUG_level);
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

void take_pes_header(tsan_ctx *tc, const uint8_t *pkt)
{
    const auto pes = ts_get_payload(pkt);
    if (is_pes_pkt(pes))
        update_pts_dts(tc, pes, tc->dat->stream);
}

// ---- Checks

void begin_analysis(tsan_ctx *tc)
{
    tc->pre_skipped = tc->ptotal - 1;
    LOG_STMT(INFO_level, "%s: %lu skipped before analysis\n", "analyze_pkt", tc->pre_skipped);
}

void check_stamps(tsan_ctx *tc, stream_info *si)
{
    const program_info *pg = prog(tc);
    if (tc->cfg.max_pcr_delta != 0 && pg->got_pcr) {
        if (si->pts_updated)
            ck_pcr(tc, true, si);
        if (si->dts_updated)
            ck_pcr(tc, false, si);
    }
    if (tc->cfg.max_pdts_delta == 0 || pg->ref_idx < 0)
        return;
    // A flag that is not cleared here makes the stream's next packet repeat the checks.
    const stream_info *ref = &pg->stm[pg->ref_idx];
    if (si->pts_updated && ref->last_pts != 0) {
        ck_tstamp(tc, true, ref, si);
        si->pts_updated = false;
    }
    if (si->dts_updated && ref->last_dts != 0) {
        ck_tstamp(tc, false, ref, si);
        si->dts_updated = false;
    }
}
