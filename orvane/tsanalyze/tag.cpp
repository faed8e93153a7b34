#include "tsanalyze/tag.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace {

constexpr size_t TAG_SIZE = PKTIDX_LEN - 1; // a tag has 62 characters at most

// A tag is made for every alert: its pieces are put together without the formatter.
struct tag_writer {
    char *at;
    char *end; // where the terminating zero must stand at the latest

    // Inline, so that a literal is one store and not a call.
    [[gnu::always_inline]] void put(std::string_view piece)
    {
        const size_t room = static_cast<size_t>(end - at);
        if (piece.size() <= room) [[likely]]
            at = std::copy(piece.begin(), piece.end(), at);
        else
            at = std::copy_n(piece.begin(), room, at);
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

// Whether the current packet's tag was taken down.
bool is_taken(const tsan_ctx *tc) { return tc->ptag_at == tc->ptotal; }

// The current packet's tag by the context's present state.
packet_tag make_tag(const tsan_ctx *tc)
{
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

packet_tag current_tag(const tsan_ctx *tc)
{
    return is_taken(tc) || !tc->shortcuts.late_tag ? tc->ptag : make_tag(tc);
}

tag_string tag_text(const tsan_ctx *tc)
{
    if (tc->ptotal == 0)
        return {};
    return tag_text(current_tag(tc));
}

void mk_ptag(tsan_ctx *tc)
{
    if (is_taken(tc))
        return;
    tc->ptag = make_tag(tc);
    tc->ptag_at = tc->ptotal;
}

void change_user(tsan_ctx *tc, const dgram_info *dat)
{
    if (tc->dat == dat)
        return;
    tc->dat = dat;
    tc->ptag_at = 0;
    if (!tc->shortcuts.late_tag)
        mk_ptag(tc);
}
