// Lines like one before: they mostly differ in digits alone, so that a comparison takes the place
// of taking them apart.
#pragma once

#include "report/events.h"

constexpr size_t MAX_LAYOUT_LEN = 192; // characters of a line whose layout is remembered

// A number in a line, and where it belongs in the event.
struct number_place {
    uint16_t at;
    uint8_t len; // 16 digits at most
    bool is_pid;
    uint16_t member; // offset in line_event
};

struct text_place {
    uint16_t at = 0, len = 0;
};

// What a line looked like: the next of its kind mostly differs in digits alone.
struct line_layout {
    size_t len = 0;                                   // 0: none
    std::array<uint64_t, MAX_LAYOUT_LEN / 8> words{}; // the characters, 0 for each digit
    std::array<uint64_t, MAX_LAYOUT_LEN / 8> slack{}; // how far each may be off
    std::array<number_place, MAX_LINE_FIELDS> places{};
    size_t nplaces = 0;
    line_event event; // its texts stand elsewhere by now, at these places of their line
    text_place time, source, tag;
};

// What the parser remembers: the latest layouts of lines by their length.
struct line_parser {
    struct layout_set {
        std::array<line_layout, 4> ways;
        unsigned next = 0;
    };
    std::array<layout_set, 32> layouts;
};

// The numbers of a line that was taken apart.
struct line_numbers {
    std::array<number_place, MAX_LINE_FIELDS> places{};
    size_t count = 0;
    bool is_all = true; // the line holds nothing else that differs from line to line
};

// Takes a line that is like one before. False when there is none.
bool parse_like_before(line_parser *parser, std::string_view line, line_event *event);

// Keeps the layout of a line in place of the one that came longest ago.
void remember_layout(line_parser *parser, std::string_view line, const line_event &event,
                     const line_numbers &numbers);
