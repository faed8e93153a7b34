#include "tsanalyze/iso.h"

#include "tsanalyze/iso_tables.h"
#include "tsanalyze/packet.h"
#include "tsanalyze/pids.h"

#include <libtarnlink/mpegts.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string_view>
#include <utility>

namespace {

enum cc_verdict { CC_GOOD, CC_REPEATED, CC_BROKEN };

// The beginning of the payload as a number, see iso.h.
uint64_t fingerprint_of(const tsan_ctx *tc)
{
    constexpr size_t unit_len = 24; // as long as a header with both time stamps, and more
    const auto payload = ts_get_payload(tc->header, tc->pkt);
    const std::string_view text(reinterpret_cast<const char *>(payload.data()), payload.size());
    uint64_t number = 0;
    if (hdr_is_unit_start(tc->header) || payload.size() < sizeof number)
        return std::hash<std::string_view>{}(text.substr(0, unit_len));
    memcpy(&number, text.data(), sizeof number);
    return number;
}

// Judges the counter of a packet of the stream.
cc_verdict judge_counter(const tsan_ctx *tc, const stream_info &si)
{
    const int cc = hdr_cc(tc->header);
    const int last = si.cc.value;
    if (last == -1 || ts_has_discontinuity(tc->header, tc->pkt))
        return CC_GOOD;
    if (!hdr_has_payload(tc->header)) // adaptation_field_control 00 is reserved, and no packet
        return cc == last || !hdr_has_adaptation(tc->header) ? CC_GOOD : CC_BROKEN;
    if (cc == ((last + 1) & 15))
        return CC_GOOD;
    const bool is_same = cc == last && si.fingerprint == fingerprint_of(tc);
    return is_same && !si.was_repeated ? CC_REPEATED : CC_BROKEN;
}

// An unexpected zero is a reset when the programme's PCR says that the previous one is long ago.
// Returns the milliseconds between them, or -1 when there was none in this time base.
int64_t note_unexpected_zero(const tsan_ctx *tc, cc_info *info)
{
    const program_info &pg = *prog(tc);
    if (!pg.got_pcr || pg.awaits_base)
        return -1;
    // The seconds hold the PCR, the nanoseconds its time base; both zero is none.
    const long base = static_cast<long>(pg.time_base) + 1;
    const timespec before = info->ms0_tm;
    info->ms0_tm = {static_cast<time_t>(pg.last_pcr), base};
    if (before.tv_nsec != base)
        return -1;
    return distance_ms(tc, static_cast<uint64_t>(before.tv_sec), pg.last_pcr);
}

void report_break(tsan_ctx *tc, stream_info *si)
{
    const uint32_t pid = hdr_pid(tc->header);
    const int cc = hdr_cc(tc->header);
    int64_t delta = -1;
    if (cc == 0 && tc->cfg.cc_max_ms0_ms != 0)
        delta = note_unexpected_zero(tc, &si->cc);
    if (delta >= 0 && delta >= tc->cfg.cc_max_ms0_ms)
        alert_cc_rst(tc, pid, si->cc.value, cc, delta);
    else
        alert_cc_break(tc, pid, si->cc.value, cc);
}

void check_counter(tsan_ctx *tc, stream_info *si, cc_verdict verdict)
{
    if (verdict == CC_BROKEN)
        report_break(tc, si);
    else if (verdict == CC_GOOD && hdr_has_payload(tc->header))
        tc->last_cca.nmlr = -1;
    if (tc->cfg.trk.cc_track && hdr_has_payload(tc->header))
        trace_cc(tc, hdr_pid(tc->header), hdr_cc(tc->header));
}

void note_counter(tsan_ctx *tc, stream_info *si)
{
    if (!hdr_has_payload(tc->header) && !hdr_has_adaptation(tc->header))
        return;
    const int last = std::exchange(si->cc.value, hdr_cc(tc->header));
    const bool is_same = last == si->cc.value;
    if (!hdr_has_payload(tc->header)) { // between two packets it makes neither of them another
        si->was_repeated = si->was_repeated && is_same;
        return;
    }
    const uint64_t number = fingerprint_of(tc);
    si->was_repeated = is_same && number == si->fingerprint;
    si->fingerprint = number;
}

// ---- Clocks

// A PCR needs seven bytes of adaptation field (2.4.3.4).
bool has_whole_pcr(const tsan_ctx *tc)
{
    return ts_has_fields(tc->header, tc->pkt, 7) && ts_has_pcr(tc->pkt) != 0;
}

// The interval to the last PCR of the time base. A clock does not step back.
void check_interval(tsan_ctx *tc, uint64_t pcr)
{
    program_info *pg = prog(tc);
    const uint32_t delta = distance_ms(tc, pg->last_pcr, pcr);
    const bool is_forward = (pcr - pg->last_pcr) % P2_33 < P2_33 / 2;
    if (is_forward)
        inc_aval(&pg->av_pcr_freq, delta);
    if (!is_forward || delta > tc->cfg.pcr_freq_ms)
        alert_pcr_freq(tc, pcr, delta);
}

void take_clock(tsan_ctx *tc)
{
    program_info *pg = prog(tc);
    if (ts_has_discontinuity(tc->header, tc->pkt))
        pg->awaits_base = true;
    if (!has_whole_pcr(tc))
        return;
    const uint64_t pcr = ts_pcr_base(tc->pkt);
    mk_ptag(tc);
    if (pg->awaits_base)
        ++pg->time_base;
    else if (pg->got_pcr && tc->cfg.pcr_freq_ms != 0)
        check_interval(tc, pcr);
    pg->awaits_base = false;
    store_pcr(tc, pcr);
}

// ---- Users of a PID

// Whether packets of the stream_id have the header that holds stamps (table 2-21).
constexpr bool id_has_stamp_header(uint8_t id)
{
    constexpr uint8_t without[] = {0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF};
    return std::find(std::begin(without), std::end(without), id) == std::end(without);
}

// Whether a PES packet has the header that holds stamps (2.4.3.7), and one as long as its flags
// say.
bool has_stamp_header(const tsan_ctx *tc)
{
    const auto pes = ts_get_payload(tc->header, tc->pkt);
    if (pes.size() < 9 || (pes[6] & 0xC0) != 0x80 || !id_has_stamp_header(pes[3]))
        return false;
    const uint8_t stamps_len = (pes[7] & 0xC0) == 0xC0 ? 10 : (pes[7] & 0x80) != 0 ? 5 : 0;
    return pes[8] >= stamps_len;
}

// Takes the time stamps of a PES header, each with the time base it belongs to. The first one of a
// time base is new, whatever its value.
void take_stamps(tsan_ctx *tc)
{
    if (!has_stamp_header(tc))
        return;
    stream_info *si = tc->dat->stream;
    const uint32_t base = prog(tc)->time_base;
    const bool first_pts = si->pts_pktnum == 0 || si->pts_base != base;
    const bool first_dts = si->dts_pktnum == 0 || si->dts_base != base;
    take_pes_header(tc);
    if (si->pts_pktnum == tc->last_pkt_idx) {
        si->pts_updated = si->pts_updated || first_pts;
        si->pts_base = base;
    }
    if (si->dts_pktnum == tc->last_pkt_idx) {
        si->dts_updated = si->dts_updated || first_dts;
        si->dts_base = base;
    }
}

// A repetition carries nothing new, and a scrambled packet nothing to be read.
void keep_account(tsan_ctx *tc, bool is_repetition)
{
    if (is_repetition)
        return;
    if (hdr_pid(tc->header) == prog(tc)->pcr_pid)
        take_clock(tc);
    if (tc->dat->stream != nullptr && hdr_is_unit_start(tc->header) &&
        !hdr_is_scrambled(tc->header))
        take_stamps(tc);
}

// Everything about the packet for one of its users but its counter, which is the PID's and judged
// once.
void analyze_for_user(tsan_ctx *tc)
{
    stream_info *si = tc->dat->stream;
    if (prog(tc)->stat.acount == 0)
        begin_analysis(tc);
    inc_pkt_stat(&prog(tc)->stat, si);
    if (tc->cfg.is_enabled && si->stype == 'A' && hdr_pid(tc->header) != prog(tc)->pcr_pid)
        check_stamps_once(tc, si);
    si->pts_updated = si->dts_updated = false;
}

// The first stream among the users of the current PID, whose counter is judged; null: none.
stream_info *first_stream(const tsan_ctx *tc)
{
    const dgram_info *dat = tc->dat;
    while (dat != nullptr && dat->stream == nullptr)
        dat = next_user_of(*dat);
    return dat != nullptr ? dat->stream : nullptr;
}

void copy_counter(stream_info *to, const stream_info &from)
{
    to->cc.value = from.cc.value;
    to->fingerprint = from.fingerprint;
    to->was_repeated = from.was_repeated;
}

// The counter is the PID's: each user can go on by it when the one whose it is goes.
void share_counter(const dgram_info *dat, const stream_info &judged)
{
    for (; dat != nullptr; dat = next_user_of(*dat)) {
        stream_info *si = dat->stream;
        if (si == nullptr || si == &judged)
            continue;
        forget_plain(si);
        copy_counter(si, judged);
    }
}

// A programme in an earlier slot that lists the PID later than another goes on by the counter of
// the one that had it.
void adopt_counter(const dgram_info *dat, stream_info *judged)
{
    for (; dat != nullptr && judged->cc.value == -1; dat = next_user_of(*dat)) {
        stream_info *si = dat->stream;
        if (si == nullptr || si == judged)
            continue;
        forget_plain(si);
        copy_counter(judged, *si);
    }
}

// Kept apart, as the road of a table packet is short.
[[gnu::noinline]] bool take_for_users(tsan_ctx *tc)
{
    stream_info *judged = first_stream(tc);
    cc_verdict verdict = CC_GOOD;
    if (judged != nullptr) {
        forget_plain(judged);
        adopt_counter(tc->dat, judged);
        verdict = judge_counter(tc, *judged);
        ++tc->atotal;
    }
    const dgram_info &first = *tc->dat;
    const dgram_info *dat = &first;
    do {
        change_user(tc, dat);
        keep_account(tc, verdict == CC_REPEATED);
        if (dat->stream == judged && judged != nullptr && tc->cfg.is_enabled && tc->cfg.cc_track)
            check_counter(tc, judged, verdict);
        if (dat->stream != nullptr)
            analyze_for_user(tc);
        dat = next_user_of(*dat);
    } while (dat != nullptr);
    change_user(tc, &first);
    if (judged == nullptr)
        return false;
    note_counter(tc, judged);
    const bool is_special = (tc->header & tc->shortcuts.special_bits) != 0;
    if (next_user_of(first) != nullptr)
        share_counter(&first, *judged);
    else if (!is_special && !judged->was_repeated)
        expect_plain(tc);
    return true;
}

// A PMT's PID may be a PCR PID as well (table 2-3).
[[gnu::noinline]] void take_clocks_of_table(tsan_ctx *tc)
{
    const dgram_info *first = tc->dat;
    for (const program_info &pg : std::span(tc->pg, tc->nprogs))
        if (!pg.is_unlisted && pg.pcr_pid == hdr_pid(tc->header)) {
            change_user(tc, &pg.dat_pmt);
            take_clock(tc);
        }
    change_user(tc, first);
}

} // namespace

bool take_by_standard(tsan_ctx *tc)
{
    const dgram_info &dat = *tc->dat;
    const uint32_t pid = hdr_pid(tc->header);
    if (hdr_is_damaged(tc->header)) {
        ++tc->iso->damaged;
        return false;
    }
    const bool is_scrambled = hdr_is_scrambled(tc->header);
    if (is_scrambled)
        ++tc->iso->scrambled[pid];
    if (&dat == &tc->dat_sdt) {
        take_sdt(tc);
    } else if (dat.is_pat || dat.is_pmt) {
        if (dat.is_pmt && hdr_has_adaptation(tc->header))
            take_clocks_of_table(tc);
        if (!is_scrambled)
            take_table_by_standard(tc);
    } else if (dat.program != nullptr) {
        return take_for_users(tc);
    } else if (tc->cfg.trk.misc_ignore) {
        trace_ignored(tc);
    }
    return false;
}
