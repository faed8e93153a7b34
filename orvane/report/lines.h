// The reader of machine lines.
#pragma once

#include "report/events.h"
#include "report/layouts.h"

enum class line_class : uint8_t {
    event,   // a machine line
    blank,   // nothing in it
    foreign, // no machine line: the other log, a report, anything
    damaged, // begins like a machine line, but is none
};

// Reads one line, without its line feed. The texts of `event`, written for class event alone, point
// into the line.
line_class parse_line(line_parser *parser, std::string_view line, line_event *event);

// Reads a packet tag. False when it is none. An empty text is one without packet.
bool parse_tag(std::string_view text, tag_info *tag);
