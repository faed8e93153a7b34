#include "report/layouts.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace {

constexpr bool is_digit(char c) { return static_cast<unsigned char>(c - '0') <= 9; }

constexpr uint64_t EACH = 0x0101010101010101;
constexpr uint64_t HIGH_BITS = 0x80 * EACH;

// Eight characters at once, the first in the lowest byte.
uint64_t load8(const char *at)
{
    uint64_t bytes = 0;
    memcpy(&bytes, at, sizeof bytes);
    return bytes;
}

// The value of eight digits, each a byte from 0 to 9, the first of them in the lowest byte.
uint64_t join_digits(uint64_t digits)
{
    digits = (digits * 10 + (digits >> 8)) & 0x00ff00ff00ff00ff;
    digits = (digits * 100 + (digits >> 16)) & 0x0000ffff0000ffff;
    return (digits * 10000 + (digits >> 32)) & 0xffffffff;
}

// The value of the digits that end here, eight at most.
uint64_t value_before(const char *end, unsigned len)
{
    return join_digits((load8(end - 8) ^ '0' * EACH) & (~uint64_t{0} << (64 - 8 * len)));
}

uint64_t value_at(const char *at, unsigned len)
{
    if (len == 1)
        return static_cast<uint64_t>(*at - '0');
    if (len <= 8)
        return value_before(at + len, len);
    return value_before(at + len - 8, len - 8) * 100'000'000 + value_before(at + len, 8);
}

// Where a piece of a line begins in the 8-byte words that cover the line; the last ends with it.
size_t word_at(size_t i, size_t len) { return std::min(8 * i, len - 8); }

size_t words_of(size_t len) { return (len + 7) / 8; }

// The differences of a word from its layout stay below 128 in every byte: so do differences of 0 to
// 9 in a digit's byte when 118 is added, and one of 0 in all others when 127 is.
bool fits(const line_layout &layout, std::string_view line)
{
    const uint64_t *words = layout.words.data();
    const uint64_t *slack = layout.slack.data();
    const size_t last = words_of(line.size()) - 1;
    uint64_t off = 0;
    const auto compare = [&](size_t i, const char *at) {
        const uint64_t difference = load8(at) ^ words[i];
        off |= difference | (difference + slack[i]);
    };
    for (size_t i = 0; i < last; ++i)
        compare(i, line.data() + 8 * i);
    compare(last, line.data() + line.size() - 8);
    return (off & HIGH_BITS) == 0;
}

text_place place_of(std::string_view line, std::string_view piece)
{
    if (piece.empty())
        return {};
    return {static_cast<uint16_t>(piece.data() - line.data()), static_cast<uint16_t>(piece.size())};
}

// Takes the numbers of a line that fits; everything else is as it was.
bool take_like(const line_layout &layout, std::string_view line, line_event *event)
{
    *event = layout.event;
    event->time = line.substr(layout.time.at, layout.time.len);
    event->source = line.substr(layout.source.at, layout.source.len);
    event->tag.text = line.substr(layout.tag.at, layout.tag.len);
    char *const base = reinterpret_cast<char *>(event);
    uint64_t beyond = 0; // of what a PID can be
    for (const number_place &place : std::span(layout.places.data(), layout.nplaces)) {
        const uint64_t value = value_at(line.data() + place.at, place.len);
        memcpy(base + place.member, &value, sizeof value);
        beyond |= place.is_pid ? value & ~MAX_PID : 0;
    }
    return beyond == 0;
}

// Lines of one length share a set of layouts.
auto &layouts_for(line_parser *parser, std::string_view line)
{
    return parser->layouts[line.size() % parser->layouts.size()];
}

} // namespace

bool parse_like_before(line_parser *parser, std::string_view line, line_event *event)
{
    for (const line_layout &layout : layouts_for(parser, line).ways)
        if (layout.len != 0 && layout.len == line.size() && fits(layout, line))
            return take_like(layout, line, event);
    return false;
}

void remember_layout(line_parser *parser, std::string_view line, const line_event &event,
                     const line_numbers &numbers)
{
    if (!numbers.is_all || line.size() < 8 || line.size() > MAX_LAYOUT_LEN)
        return;
    auto &set = layouts_for(parser, line);
    line_layout &layout = set.ways[set.next++ % set.ways.size()];
    layout.len = line.size();
    layout.event = event;
    layout.time = place_of(line, event.time);
    layout.source = place_of(line, event.source);
    layout.tag = place_of(line, event.tag.text);
    layout.places = numbers.places;
    layout.nplaces = numbers.count;
    std::array<bool, MAX_LAYOUT_LEN> varies{};
    for (size_t i = 0; i < event.time.size(); ++i)
        varies[i] = is_digit(line[i]);
    for (const number_place &place : std::span(numbers.places).first(numbers.count))
        std::fill_n(varies.begin() + place.at, place.len, true);
    for (size_t i = 0; i < words_of(line.size()); ++i) {
        char word[8];
        uint64_t digits = 0;
        for (size_t j = 0; j < 8; ++j) {
            const size_t at = word_at(i, line.size()) + j;
            word[j] = varies[at] ? '0' : line[at];
            digits |= uint64_t{varies[at] ? 1u : 0u} << (8 * j);
        }
        layout.words[i] = load8(word);
        layout.slack[i] = 0x7f * EACH - 9 * digits;
    }
}
