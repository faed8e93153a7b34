#include "report/lines.h"

#include <algorithm>
#include <cstring>

namespace {

using enum field_type;

constexpr size_t MAX_SOURCE_LEN = 63;
constexpr uint64_t MAX_INDEX = 0x7fff;

// ---- Fields

// What a parse leaves behind: the event, and where its numbers stand in the line.
struct parse_state {
    line_event *event;
    const char *line = nullptr;
    line_numbers numbers{};
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
    constexpr ptrdiff_t max_len = 16;
    const cursor behind = take_number(in, value);
    if (!behind.is_valid())
        return INVALID;
    line_numbers &numbers = state->numbers;
    if (behind.at - in.at > max_len || numbers.count == numbers.places.size())
        numbers.is_all = false;
    else
        numbers.places[numbers.count++] = {static_cast<uint16_t>(in.at - state->line),
                                           static_cast<uint8_t>(behind.at - in.at), is_pid,
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
        state->numbers.is_all = false;
        return take_signed(in, value);
    case zero:
        return skip(in, '0');
    case stamp:
        return take_stamp(in, value);
    case letter:
        return take_letter(in, value);
    case mean:
        state->numbers.is_all = false;
        return take_mean(in);
    case text:
        state->numbers.is_all = false;
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
    const auto &fields = info_of(state->event->kind).fields;
    uint64_t *value = state->event->values.data();
    state->numbers = {};
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
    for (size_t n = info_of(event->kind).fields.size(); n > 0; --n) {
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
cursor skip_kind(cursor in, line_kind kind) { return skip(skip(in, info_of(kind).name), ' '); }

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

} // namespace

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
    remember_layout(parser, line, *event, state.numbers);
    return line_class::event;
}
