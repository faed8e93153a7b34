// The shortcuts of the road of a packet.
//
// Most packets need not walk the whole road. The contract of every shortcut: what a packet leaves
// behind - counters, tables, alerts, reports, lines of the logs - is what the whole road would
// have left. Each is chosen once per context, where no trace line of the user's wants the whole
// road; walk_whole_road switches all of them off, and a test compares the two. Whoever adds a check
// to the road asks here which packets must not pass by it any more.
//
//   - Plain packets continue a payload unit of a stream whose latest packet left nothing to be
//     checked again, without adaptation field, and their counter is in sequence. All of that is one
//     comparison with the header expected; what is left to do is to count.
//   - Packets of a PID that means nothing, null packets above all, are nobody's once some packet
//     was analysed: the source cannot idle any more.
//   - Quiet tables: a section with the bytes of one that changed nothing changes nothing
//     (section_image). A PAT in several sections and a PMT whose text ran out of room, which is
//     told every time, are never quiet. By the standard's rules it is the same with packets that
//     hold whole sections (section_gatherer::take_again).
//   - Late tags: see tag.h.
#pragma once

#include "tsanalyze/count.h"

#include <cstring>
#include <span>

// Chooses the shortcuts of a context by its settings.
inline void choose_shortcuts(tsan_ctx *tc)
{
    constexpr ts_header damaged_or_scrambled = 0x8000C0;
    const tracking_opt &trk = tc->cfg.trk;
    tc->shortcuts = {.plain = !trk.cc_track,
                     .nothing = !trk.misc_ignore,
                     .quiet_pat = !trk.pat_pmt_pkt,
                     .quiet_pmt = !trk.pmt_diff,
                     .late_tag = true,
                     .special_bits = tc->cfg.iso_rules ? damaged_or_scrambled : 0};
}

// Makes every packet of a new context walk the whole road. For tests: nothing a user sees differs.
inline void walk_whole_road(tsan_ctx *tc) { tc->shortcuts = {}; }

// ---- Plain packets

// expect_plain, take_plain and forget_plain go together: the header expected also holds the counter
// of the stream while its packets are plain.

// Notes, at the end of the whole road, the header that the stream's next packet has if it is plain;
// 0, which no packet begins with, when the next one must walk the whole road.
inline void expect_plain(const tsan_ctx *tc)
{
    stream_info &si = *tc->dat->stream;
    const bool repeats_checks = si.stype == 'A' && (si.pts_updated || si.dts_updated);
    const bool plain = tc->shortcuts.plain && hdr_has_payload_only(tc->header) && !repeats_checks;
    si.next_plain = plain ? hdr_continued(tc->header) : 0;
}

inline bool is_plain(const dgram_info &dat, ts_header h)
{
    return dat.stream != nullptr && h == dat.stream->next_plain;
}

inline void take_plain(tsan_ctx *tc, const dgram_info &dat, ts_header h, const uint8_t *pkt)
{
    stream_info *si = dat.stream;
    ++tc->atotal;
    inc_pkt_stat(&dat.program->stat, si);
    tc->last_cca.nmlr = -1;
    si->next_plain = hdr_continued(h);
    memcpy(&si->fingerprint, pkt + 4, sizeof si->fingerprint); // see iso.h
}

// The last continuity counter of a stream; -1 before the first.
inline int last_cc(const stream_info &si)
{
    return si.next_plain != 0 ? hdr_cc(si.next_plain - 1) : si.cc.value;
}

// Takes the stream off the shortcut: its counter, which plain packets leave behind, is written
// down. Whoever looks at a stream's counter, or changes the stream, calls this first.
inline void forget_plain(stream_info *si)
{
    si->cc.value = last_cc(*si);
    si->next_plain = 0;
}

// Takes the streams whose PID has another user by now off the shortcut: a plain packet is counted
// for one. To be called when PIDs may mean more than they did.
inline void forget_plain_of_shared(tsan_ctx *tc)
{
    for (program_info &pg : std::span(tc->pg, tc->nprogs))
        for (stream_info &si : std::span(pg.stm, pg.nstreams))
            if (si.next_user != nullptr)
                forget_plain(&si);
}

// ---- Packets that mean nothing

// To be called when a packet is analysed.
inline void expect_nothing(tsan_ctx *tc)
{
    if (tc->shortcuts.nothing)
        tc->shortcuts.nothing_bits = ts_header{MPEG_TS_SYNC} << 24;
}

inline bool means_nothing(const tsan_ctx *tc, const dgram_info &dat, ts_header h)
{
    return &dat == &tc->dat_none &&
           (h & (0xFF000000 | tc->shortcuts.special_bits)) == tc->shortcuts.nothing_bits;
}
