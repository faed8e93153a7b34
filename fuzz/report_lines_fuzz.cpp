// The reader of machine lines: whatever a log holds, a line means the same whether lines like it
// came before or not, and its texts are pieces of it.

#include "fuzz.h"
#include "report/blocks.h"
#include "report/lines.h"
#include "report/tally.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>

namespace {

constexpr size_t SMALL_BLOCK = 8192;

void check(bool holds)
{
    if (!holds)
        abort();
}

bool is_within(std::string_view line, std::string_view piece)
{
    return piece.empty() || (piece.data() >= line.data() &&
                             piece.data() + piece.size() <= line.data() + line.size());
}

bool same(const line_event &a, const line_event &b)
{
    const tag_info &s = a.tag;
    const tag_info &t = b.tag;
    return a.kind == b.kind && a.is_rescued == b.is_rescued && a.time == b.time &&
           a.source == b.source && a.values == b.values && a.text == b.text && s.text == t.text &&
           s.programme == t.programme && s.stream == t.stream && s.packet == t.packet &&
           s.has_packet == t.has_packet && s.has_pcr == t.has_pcr && s.pcr_ticks == t.pcr_ticks &&
           s.pcr_packets == t.pcr_packets;
}

void forget(line_parser *parser)
{
    for (auto &set : parser->layouts)
        for (auto &layout : set.ways)
            layout.len = 0;
}

void check_line(line_parser *parser, std::string_view line, capture_tally *tally)
{
    static const auto fresh = std::make_unique<line_parser>();
    line_event event;
    line_event again;
    const line_class found = parse_line(parser, line, &event);
    forget(fresh.get());
    check(parse_line(fresh.get(), line, &again) == found);
    if (found != line_class::event)
        return;
    check(same(event, again));
    for (const std::string_view piece : {event.time, event.source, event.text, event.tag.text})
        check(is_within(line, piece));
    alert_record alert;
    tally_event(tally, event, &alert);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    line_blocks in(SMALL_BLOCK);
    static const auto parser = std::make_unique<line_parser>();
    forget(parser.get());
    capture_tally tally;
    tally.wants_time = tally.wants_bins = true;
    text_line line;
    for (size_t at = 0; !in.at_end;) {
        const std::span<char> room = blocks_room(&in);
        const size_t n = std::min(room.size(), size - at);
        if (n > 0)
            memcpy(room.data(), data + at, n);
        blocks_filled(&in, n);
        at += n;
        while (next_line(&in, &line)) {
            // A copy of its own: reading past it is found.
            const std::string copy(line.text);
            const std::unique_ptr<char[]> exact(new char[copy.size()]);
            std::copy(copy.begin(), copy.end(), exact.get());
            check_line(parser.get(), {exact.get(), copy.size()}, &tally);
        }
    }
    uint64_t counted = 0;
    for (const auto &[key, lane] : tally.lanes)
        counted += lane.count;
    check(counted == std::accumulate(tally.counts.begin(), tally.counts.end(), uint64_t{0}));
    return 0;
}
