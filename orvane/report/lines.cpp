#include "report/lines.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

using enum field_type;

constexpr size_t MAX_SOURCE_LEN = 63;
constexpr uint64_t MAX_INDEX = 0x7fff;

constexpr field_info CC_BRK[] = {{"pid", pid},
                                 {"segment", number},
                                 {"last_counter", number},
                                 {"current_counter", number},
                                 {nullptr, tag}};
constexpr field_info CC_RST[] = {{"pid", pid},
                                 {"segment", number},
                                 {"last_counter", number},
                                 {"current_counter", number},
                                 {"since_ms", signed_number},
                                 {nullptr, tag}};
constexpr field_info CC_MLR[] = {{"segment", number}, {"count", signed_number}, {nullptr, tag}};
constexpr field_info PCR_FREQ[] = {{"pid", pid},
                                   {"old_pcr_ticks", number},
                                   {"new_pcr_ticks", number},
                                   {"delta_ms", number},
                                   {nullptr, braced_tag}};
constexpr field_info PCR_DELTA[] = {
    {"stamp", stamp},        {"pcr_pid", pid},     {"pcr_ticks", number}, {"pid", pid},
    {"stamp_ticks", number}, {"delta_ms", number}, {nullptr, braced_tag}};
constexpr field_info AV_DELTA[] = {
    {"stamp", stamp},        {"video_pid", pid},   {"video_ticks", number}, {"pid", pid},
    {"stamp_ticks", number}, {"delta_ms", number}, {nullptr, braced_tag}};
constexpr field_info PAT_DIFF[] = {{nullptr, zero},
                                   {"programmes", number},
                                   {"added", number},
                                   {"deleted", number},
                                   {nullptr, tag}};
constexpr field_info PMT_DIFF[] = {{"pid", pid},
                                   {"streams_before", number},
                                   {"entries_now", number},
                                   {"pcr_pid", pid},
                                   {nullptr, tag}};
constexpr field_info PID_NDAT[] = {
    {"pid", pid}, {"programme", number}, {"stream", number}, {nullptr, tag}};
constexpr field_info LOST_SYNC[] = {{"sequence", number}, {nullptr, braced_tag}};

constexpr field_info GLOBAL[] = {{"duration_ms", signed_number}, {"programmes", number},
                                 {"packets_skipped", number},    {"LOST-SYNC", number},
                                 {"PAT-DIFF", number},           {"CC-MLR", number}};
constexpr field_info PMTS[] = {{"programme", number}, {"pmt_pid", pid}, {"streams", number}};
constexpr field_info PMTI[] = {{"programme", number}, {"pid", pid},         {"class", letter},
                               {"packets", number},   {"analysed", number}, {"type", text}};
// The PID is that of the PCR of the latest packet's programme.
constexpr field_info PRG[] = {
    {"latest_pcr_pid", pid},    {"packets", number},         {"analysed", number},
    {"video_packets", number},  {"video_analysed", number},  {"audio_packets", number},
    {"audio_analysed", number}, {"private_packets", number}, {"private_analysed", number}};
constexpr field_info AVERAGE[] = {
    {"pid", signed_number},   {nullptr, signed_number}, {nullptr, mean},
    {"period_count", number}, {"period_sum", number},   {"period_min", number},
    {"period_max", number},   {nullptr, mean},          {"count", number},
    {"sum", number},          {"min", number},          {"max", number}};
constexpr field_info ALERT_COUNT[] = {
    {"programme", number}, {"AV-DELTA+", number}, {"AV-DELTA0", number}, {"PCR-DELTA", number},
    {"PCR-FREQ", number},  {"CC-BRK", number},    {"CC-RST", number},    {"PID-NDAT", number}};

constexpr std::array<kind_info, LINE_KINDS> KINDS{{{"CC-BRK", CC_BRK},
                                                   {"CC-RST", CC_RST},
                                                   {"CC-MLR", CC_MLR},
                                                   {"PCR-FREQ", PCR_FREQ},
                                                   {"PCR-DELTA", PCR_DELTA},
                                                   {"AV-DELTA+", AV_DELTA},
                                                   {"AV-DELTA0", AV_DELTA},
                                                   {"PAT-DIFF", PAT_DIFF},
                                                   {"PMT-DIFF", PMT_DIFF},
                                                   {"PID-NDAT", PID_NDAT},
                                                   {"LOST-SYNC", LOST_SYNC},
                                                   {"GLOBAL", GLOBAL},
                                                   {"PMTs", PMTS},
                                                   {"PMTi", PMTI},
                                                   {"PRG", PRG},
                                                   {"AV-delta", AVERAGE},
                                                   {"PCR-delta", AVERAGE},
                                                   {"PCR-freq", AVERAGE},
                                                   {"ALERT-count", ALERT_COUNT}}};

// ---- Fields

// What a parse leaves behind: the event, and where its numbers stand in the line.
struct parse_state {
    line_event *event;
    const char *line = nullptr;
    std::array<number_place, MAX_LINE_FIELDS> places{};
    size_t nplaces = 0;
    bool is_regular = true; // nothing but numbers and fixed words
};

// What is left of a text. It is handed on by value so that it stays in registers; a piece that is
// not there makes it invalid.
struct cursor {
    const char *at;
    const char *end;

    bool is_valid() const { return at != nullptr; }
    bool is_at_end() const { return at == end; }
    std::string_view rest() const { return {at, static_cast<size_t>(end - at)}; }
};

constexpr cursor INVALID{nullptr, nullptr};

cursor cursor_of(std::string_view text) { return {text.data(), text.data() + text.size()}; }

inline cursor skip(cursor in, char c)
{
    return in.is_valid() && in.at != in.end && *in.at == c ? cursor{in.at + 1, in.end} : INVALID;
}

inline cursor skip(cursor in, std::string_view word)
{
    return in.is_valid() && in.rest().starts_with(word) ? cursor{in.at + word.size(), in.end}
                                                        : INVALID;
}

bool is_digit(char c) { return static_cast<unsigned char>(c - '0') <= 9; }

cursor take_number(cursor in, uint64_t *value)
{
    if (!in.is_valid())
        return INVALID;
    const char *const from = in.at;
    uint64_t v = 0;
    while (in.at != in.end && is_digit(*in.at))
        v = v * 10 + static_cast<uint64_t>(*in.at++ - '0');
    *value = v;
    const ptrdiff_t len = in.at - from;
    // 20 digits may be too many
    const bool fits = len <= 19 || (len == 20 && *from == '1' && v >= 10'000'000'000'000'000'000U);
    return len > 0 && fits ? in : INVALID;
}

// Where a number stands in the record of its event.
uint16_t member_of(const line_event &event, const uint64_t *value)
{
    return static_cast<uint16_t>(reinterpret_cast<const char *>(value) -
                                 reinterpret_cast<const char *>(&event));
}

// A number that differs from line to line.
cursor take_variable(cursor in, uint64_t *value, parse_state *state, bool is_pid = false)
{
    const cursor behind = take_number(in, value);
    const ptrdiff_t len = behind.at - in.at;
    if (!behind.is_valid() || len > 16 || state->nplaces == state->places.size())
        state->is_regular = false;
    else
        state->places[state->nplaces++] = {static_cast<uint16_t>(in.at - state->line),
                                           static_cast<uint8_t>(len), is_pid,
                                           member_of(*state->event, value)};
    return behind;
}

cursor take_signed(cursor in, uint64_t *value)
{
    const cursor behind_sign = skip(in, '-');
    in = take_number(behind_sign.is_valid() ? behind_sign : in, value);
    if (behind_sign.is_valid())
        *value = 0 - *value;
    return in;
}

cursor take_stamp(cursor in, uint64_t *value)
{
    const cursor behind = skip(in, "pts");
    *value = behind.is_valid() ? 0 : 1;
    return behind.is_valid() ? behind : skip(in, "dts");
}

cursor take_mean(cursor in)
{
    const cursor behind_sign = skip(in, '-');
    const cursor behind_nan = skip(behind_sign.is_valid() ? behind_sign : in, "nan");
    uint64_t digits = 0;
    return behind_nan.is_valid() ? behind_nan
                                 : take_number(skip(take_number(in, &digits), '.'), &digits);
}

cursor take_braced(cursor in, std::string_view *text)
{
    const char *const till = std::find(in.at, in.end, ' ');
    const std::string_view word(in.at, static_cast<size_t>(till - in.at));
    if (word.size() < 2 || word.front() != '[' || word.back() != ']')
        return INVALID;
    *text = word.substr(1, word.size() - 2);
    return {till, in.end};
}

cursor take_letter(cursor in, uint64_t *value)
{
    if (in.at == in.end || *in.at == ' ')
        return INVALID;
    *value = static_cast<unsigned char>(*in.at);
    return {in.at + 1, in.end};
}

// The tag's beginning: PAT, pkt, 0:M or 0:1.
cursor take_place(cursor in, tag_info *tag)
{
    uint64_t programme = 0;
    uint64_t stream = 0;
    if (in.at == in.end || !is_digit(*in.at)) {
        const cursor behind = skip(in, "PAT");
        return behind.is_valid() ? behind : skip(in, "pkt");
    }
    in = skip(take_number(in, &programme), ':');
    if (!in.is_valid() || programme > MAX_INDEX)
        return INVALID;
    tag->programme = static_cast<int>(programme);
    if (const cursor table = skip(in, 'M'); table.is_valid())
        return table;
    if (const cursor none = skip(in, "-1"); none.is_valid())
        return none;
    in = take_number(in, &stream);
    if (stream > MAX_INDEX)
        return INVALID;
    tag->stream = static_cast<int>(stream);
    return in;
}

cursor take_tag(cursor in, tag_info *tag, parse_state *state)
{
    const char *const from = in.at;
    *tag = {};
    in = skip(take_variable(skip(take_place(in, tag), '['), &tag->packet, state), ']');
    tag->has_packet = in.is_valid();
    if (const cursor pcr = skip(in, ":(pcr="); pcr.is_valid()) {
        tag->has_pcr = true;
        in = skip(take_variable(pcr, &tag->pcr_ticks, state), ")+");
        in = take_variable(in, &tag->pcr_packets, state);
    }
    if (in.is_valid())
        tag->text = {from, static_cast<size_t>(in.at - from)};
    return in;
}

// Before the first packet the tag is empty.
cursor take_braced_tag(cursor in, tag_info *tag, parse_state *state)
{
    in = skip(in, '[');
    const cursor empty = skip(in, ']');
    if (empty.is_valid())
        *tag = {};
    return empty.is_valid() || !in.is_valid() ? empty : skip(take_tag(in, tag, state), ']');
}

cursor take_field(cursor in, field_type type, uint64_t *value, parse_state *state)
{
    switch (type) {
    case number:
        return take_variable(in, value, state);
    case pid:
        in = take_variable(in, value, state, true);
        return *value <= MAX_PID ? in : INVALID;
    case signed_number:
        state->is_regular = false;
        return take_signed(in, value);
    case zero:
        return skip(in, '0');
    case stamp:
        return take_stamp(in, value);
    case letter:
        return take_letter(in, value);
    case mean:
        state->is_regular = false;
        return take_mean(in);
    case text:
        state->is_regular = false;
        return take_braced(in, &state->event->text);
    case tag:
        return take_tag(in, &state->event->tag, state);
    case braced_tag:
        return take_braced_tag(in, &state->event->tag, state);
    }
    return INVALID;
}

bool take_fields(cursor in, parse_state *state)
{
    const auto &fields = KINDS[index_of(state->event->kind)].fields;
    uint64_t *value = state->event->values.data();
    state->nplaces = 0;
    state->is_regular = true;
    for (size_t i = 0; i < fields.size() && in.is_valid(); ++i) {
        if (i != 0)
            in = skip(in, ' ');
        if (in.is_valid())
            in = take_field(in, fields[i].type, value++, state);
    }
    return in.is_valid() && in.is_at_end();
}

// ---- The message

bool has_message_within(std::string_view text)
{
    return text.find("ALERT ") != text.npos || text.find("STAT ") != text.npos;
}

// A source tag may hold blanks. The fields behind it hold none, so they are counted from the end.
bool take_wide_source(std::string_view rest, parse_state *state)
{
    line_event *const event = state->event;
    size_t at = rest.size();
    for (size_t n = KINDS[index_of(event->kind)].fields.size(); n > 0; --n) {
        if (at == 0 || (at = rest.rfind(' ', at - 1)) == rest.npos)
            return false;
    }
    event->source = rest.substr(0, at);
    return event->source.size() <= MAX_SOURCE_LEN && !has_message_within(event->source) &&
           take_fields(cursor_of(rest.substr(at + 1)), state);
}

bool take_source_and_fields(std::string_view rest, parse_state *state)
{
    const void *blank = memchr(rest.data(), ' ', rest.size());
    if (blank == nullptr)
        return false;
    const size_t len = static_cast<size_t>(static_cast<const char *>(blank) - rest.data());
    state->event->source = rest.substr(0, len);
    if (len <= MAX_SOURCE_LEN && take_fields(cursor_of(rest.substr(len + 1)), state))
        return true;
    return take_wide_source(rest, state);
}

// What is behind "ALERT CC-BRK ", or nothing valid when another kind stands there.
cursor skip_kind(cursor in, line_kind kind)
{
    return skip(skip(in, KINDS[index_of(kind)].name), ' ');
}

enum class message_class : uint8_t { valid, broken, none };

message_class parse_message(std::string_view message, parse_state *state)
{
    const cursor alert = skip(cursor_of(message), "ALERT ");
    const cursor in = alert.is_valid() ? alert : skip(cursor_of(message), "STAT ");
    for (size_t i = alert.is_valid() ? 0 : ALERT_KINDS; in.is_valid() && i < LINE_KINDS; ++i) {
        const cursor behind = skip_kind(in, static_cast<line_kind>(i));
        if (!behind.is_valid())
            continue;
        state->event->kind = static_cast<line_kind>(i);
        return take_source_and_fields(behind.rest(), state) ? message_class::valid
                                                            : message_class::broken;
    }
    return message_class::none;
}

// ---- The head

constexpr std::string_view CALENDAR = "0000-00-00 00:00:00"; // 0: any digit
constexpr std::string_view MICROS = ".000000";
constexpr size_t TIME_LEN = CALENDAR.size() + MICROS.size();

bool has_shape(std::string_view text, std::string_view shape)
{
    if (text.size() < shape.size())
        return false;
    for (size_t i = 0; i < shape.size(); ++i)
        if (shape[i] == '0' ? !is_digit(text[i]) : text[i] != shape[i])
            return false;
    return true;
}

// The length of the time at the beginning, 0 when there is none.
size_t time_length(std::string_view text)
{
    uint64_t seconds = 0;
    if (!has_shape(text, CALENDAR)) {
        const cursor behind = take_number(cursor_of(text), &seconds);
        const bool is_raw = behind.is_valid() && has_shape(behind.rest(), MICROS);
        return is_raw ? text.size() - behind.rest().size() + MICROS.size() : 0;
    }
    size_t len = CALENDAR.size();
    if (has_shape(text.substr(len), MICROS))
        len += MICROS.size();
    if (len < text.size() && text[len] == ' ') // the zone
        len = std::min(text.find(' ', len + 1), text.size());
    return len;
}

struct head_parts {
    size_t time_len = 0;
    size_t message_at = 0;
    bool is_for_people = false; // a level tag: a line of the application log
    bool is_cut = false;        // nothing follows
};

head_parts parse_head(std::string_view line)
{
    head_parts head;
    head.time_len = time_length(line);
    size_t at = head.time_len;
    if (at < line.size() && line[at] == ' ')
        ++at;
    head.is_for_people = at < line.size() && line[at] == '(';
    uint64_t process = 0;
    const cursor behind = skip(take_number(cursor_of(line.substr(at)), &process), "  ");
    if (behind.is_valid())
        at = line.size() - behind.rest().size();
    head.message_at = at;
    head.is_cut = head.time_len != 0 && at == line.size();
    return head;
}

// A level tag, as "(WRN)  ", anywhere in front of the message.
bool has_level_tag(std::string_view head)
{
    for (size_t at = 0; (at = head.find('(', at)) != head.npos; ++at)
        if (head.substr(at).size() >= 7 && head.substr(at + 4, 3) == ")  ")
            return true;
    return false;
}

std::string_view find_time(std::string_view head)
{
    for (size_t at = head.size(); at-- > 0;)
        if (has_shape(head.substr(at), CALENDAR))
            return head.substr(at, time_length(head.substr(at)));
    return {};
}

// Where the last message of the line begins, or npos.
size_t find_message(std::string_view line)
{
    size_t found = line.npos;
    for (const std::string_view word : {"ALERT ", "STAT "})
        for (size_t at = line.rfind(word); at != line.npos; at = line.rfind(word, at - 1)) {
            if (at == 0 || line[at - 1] == ' ' || line[at - 1] == '\0') {
                found = found == line.npos ? at : std::max(found, at);
                break;
            }
        }
    return found;
}

bool is_blank(std::string_view line) { return line.find_first_not_of(" \t") == line.npos; }

// A line whose message is not where the usual head ends: behind a prefix, or behind damage.
line_class search_line(std::string_view line, parse_state *state)
{
    const bool has_zeros = memchr(line.data(), '\0', line.size()) != nullptr;
    const line_class otherwise = has_zeros ? line_class::damaged : line_class::foreign;
    const size_t at = find_message(line);
    if (at == line.npos)
        return otherwise;
    const std::string_view head = line.substr(0, at);
    if (has_level_tag(head))
        return otherwise;
    const message_class found = parse_message(line.substr(at), state);
    if (found != message_class::valid)
        return found == message_class::broken ? line_class::damaged : otherwise;
    state->event->time = find_time(head);
    state->event->is_rescued = has_zeros || has_message_within(head);
    return line_class::event;
}

// ---- Lines like one before

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

bool parse_like_before(line_parser *parser, std::string_view line, line_event *event)
{
    for (const line_layout &layout : layouts_for(parser, line).ways)
        if (layout.len != 0 && layout.len == line.size() && fits(layout, line))
            return take_like(layout, line, event);
    return false;
}

// Keeps a line's layout in place of the one that came longest ago.
void remember(line_parser *parser, std::string_view line, const parse_state &state)
{
    if (!state.is_regular || line.size() < TIME_LEN || line.size() > MAX_LAYOUT_LEN)
        return;
    auto &set = layouts_for(parser, line);
    line_layout &layout = set.ways[set.next++ % set.ways.size()];
    layout.len = line.size();
    layout.event = *state.event;
    layout.time = place_of(line, state.event->time);
    layout.source = place_of(line, state.event->source);
    layout.tag = place_of(line, state.event->tag.text);
    layout.places = state.places;
    layout.nplaces = state.nplaces;
    std::array<bool, MAX_LAYOUT_LEN> varies{};
    for (size_t i = 0; i < state.event->time.size(); ++i)
        varies[i] = is_digit(line[i]);
    for (const number_place &place : std::span(state.places).first(state.nplaces))
        std::fill_n(varies.begin() + place.at, place.len, true);
    for (size_t i = 0; i < words_of(line.size()); ++i) {
        char word[8];
        uint64_t digits = 0;
        for (size_t j = 0; j < 8; ++j) {
            const size_t at = word_at(i, line.size()) + j;
            word[j] = varies[at] ? '0' : line[at];
            digits |= uint64_t{varies[at]} << (8 * j);
        }
        layout.words[i] = load8(word);
        layout.slack[i] = 0x7f * EACH - 9 * digits;
    }
}

} // namespace

const kind_info &info_of(line_kind kind) { return KINDS[index_of(kind)]; }

bool find_alert_kind(std::string_view name, line_kind *kind)
{
    const auto end = KINDS.begin() + ALERT_KINDS;
    const auto found =
        std::find_if(KINDS.begin(), end, [name](const kind_info &k) { return k.name == name; });
    if (found == end)
        return false;
    *kind = static_cast<line_kind>(found - KINDS.begin());
    return true;
}

bool parse_tag(std::string_view text, tag_info *tag)
{
    line_event event;
    parse_state state{.event = &event, .line = text.data()};
    const bool is_tag = text.empty() || take_tag(cursor_of(text), &event.tag, &state).at ==
                                            text.data() + text.size();
    *tag = event.tag;
    return is_tag;
}

line_class parse_line(line_parser *parser, std::string_view line, line_event *event)
{
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    if (parse_like_before(parser, line, event))
        return line_class::event;
    if (is_blank(line))
        return line_class::blank;
    const head_parts head = parse_head(line);
    if (head.is_for_people)
        return line_class::foreign;
    if (head.is_cut)
        return line_class::damaged;
    *event = {};
    parse_state state{.event = event, .line = line.data()};
    const std::string_view message = line.substr(head.message_at);
    if (parse_message(message, &state) != message_class::valid) {
        const line_class found = search_line(line, &state);
        const bool is_message =
            head.time_len != 0 && (message.starts_with("ALERT") || message.starts_with("STAT"));
        return is_message && found == line_class::foreign ? line_class::damaged : found;
    }
    event->time = line.substr(0, head.time_len);
    remember(parser, line, state);
    return line_class::event;
}

const uint64_t *field_of(const line_event &event, std::string_view name)
{
    const auto &fields = info_of(event.kind).fields;
    for (size_t i = 0; i < fields.size(); ++i)
        if (fields[i].name != nullptr && fields[i].name == name)
            return &event.values[i];
    return nullptr;
}
