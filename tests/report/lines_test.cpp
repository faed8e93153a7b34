// The machine lines and the blocks they are read in.

#include "report/blocks.h"
#include "report/lines.h"
#include "support/lines.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

namespace {

// All that was found in a line: "CC-BRK news pid=256 segment=0 ... at 0:0[286] pcr=156600+11".
std::string told(line_parser *parser, const std::string &line)
{
    static const char *const CLASSES[] = {"", "blank", "foreign", "damaged"};
    const std::string copy = line; // texts must not point elsewhere
    line_event event;
    const line_class found = parse_line(parser, copy, &event);
    if (found != line_class::event)
        return CLASSES[static_cast<int>(found)];
    std::string text = std::string(info_of(event.kind).name) + " " + std::string(event.source);
    const auto &fields = info_of(event.kind).fields;
    const auto number = [](auto value) { return std::to_string(static_cast<int64_t>(value)); };
    for (size_t i = 0; i < fields.size(); ++i)
        if (fields[i].type == field_type::text)
            text += " type=" + std::string(event.text);
        else if (fields[i].name != nullptr)
            text += std::string(" ") + fields[i].name + "=" + number(event.values[i]);
    const tag_info &tag = event.tag;
    if (is_alert(event.kind) && tag.has_packet)
        text += " at " + number(tag.programme) + ":" + number(tag.stream) + "[" +
                std::to_string(tag.packet) + "]";
    if (is_alert(event.kind) && tag.has_pcr)
        text += " pcr=" + number(tag.pcr_ticks) + "+" + number(tag.pcr_packets);
    return text + (event.time.empty() ? "" : " time=" + std::string(event.time)) +
           (event.is_rescued ? " rescued" : "");
}

std::string told(const std::string &line)
{
    return told(std::make_unique<line_parser>().get(), line);
}

// Messages of every kind, one of them with an empty source tag, and what is found in each.
std::vector<std::pair<std::string, std::string>> messages()
{
    std::vector<std::pair<std::string, std::string>> all;
    for (const std::string &line : split_lines(file_text(ORVSCAN_ROOT "/tests/report/lines.txt")))
        if (line.starts_with("    "))
            all.back().second = line.substr(4);
        else
            all.emplace_back(line, "");
    return all;
}

TEST(lines, every_kind_is_taken_apart_in_every_layout)
{
    const std::pair<std::string, std::string> heads[] = {
        {"2026-11-21 11:50:37.152091 UTC 25526  ", " time=2026-11-21 11:50:37.152091 UTC"},
        {"2026-11-21 11:50:37 CET ", " time=2026-11-21 11:50:37 CET"},
        {"1795261837.152091 25526  ", " time=1795261837.152091"},
        {"", ""},
        {"host7  2026-11-21 11:50:37.152091 +03 25526  GRP  ",
         " time=2026-11-21 11:50:37.152091 +03"}};
    const auto parser = std::make_unique<line_parser>();
    for (const auto &[head, time] : heads)
        for (const auto &[message, found] : messages())
            for (const char *end : {"", "\r", ""}) // the last is like one before
                EXPECT_EQ(told(parser.get(), head + message + end), found + time);
}

TEST(lines, what_is_no_machine_line_is_told_apart)
{
    const std::string head = "2026-11-21 11:50:37.152091 UTC 25526  ";
    const std::string good = "ALERT CC-MLR n 7 2 pkt[9]";
    const std::string found =
        "CC-MLR n segment=7 count=2 at -1:-1[9] time=2026-11-21 11:50:37.152091 UTC rescued";
    const std::pair<std::string, std::string> cases[] = {
        {"", "blank"},
        {" \t", "blank"},
        {"SIG(2)", "foreign"},
        {"2026-11-21 11:50:37.152091 UTC (WRN)  FSCN  " + good, "foreign"},
        {"host  2026-11-21 11:50:37.152091 UTC (WRN)  FSCN  " + good, "foreign"},
        {"someone said: ALERT the neighbours", "foreign"},
        {head, "damaged"},
        {head + "ALER", "foreign"},
        {head + "ALERT", "damaged"},
        {head + "ALERT CC-B", "damaged"},
        {head + "ALERT CC-MLR n 7 2", "damaged"},
        {head + "ALERT CC-MLR n 7 2 pkt[9", "damaged"},
        {head + "ALERT CC-MLR n 7 2 pkt[9]:(pcr=12", "damaged"},
        {head + "ALERT CC-MLR n 7 18446744073709551616 pkt[9]", "damaged"},
        {head + "ALERT CC-MLR n 7 2 pkt[9] ", "damaged"},
        {head + "ALERT PID-NDAT n 8192 1 0 pkt[6]", "damaged"},
        {head + "ALERT PAT-DIFF n 1 3 1 2 PAT[77]", "damaged"},
        {head + "ALERT CC-MLR " + std::string(64, 'n') + " 7 2 pkt[9]", "damaged"},
        {head + "STAT PRG n 256 1 2 3 4 5 6 7", "damaged"},
        {std::string(70, '\0'), "damaged"},
        {std::string(70, '\0') + head + good, found},
        {std::string(70, '\0') + good, "CC-MLR n segment=7 count=2 at -1:-1[9] rescued"},
        {head + "ALERT CC-MLR n 7 " + head + good, found},
    };
    for (const auto &[line, result] : cases)
        EXPECT_EQ(told(line), result) << line;
}

// A parser that has seen other lines finds in a line what a new one finds.
TEST(lines, what_the_parser_remembers_changes_nothing)
{
    std::minstd_rand random(1);
    const auto parser = std::make_unique<line_parser>();
    const auto all = messages();
    const std::string some = "0123456789 :[]()+=-\0azAPT";
    for (int i = 0; i < 30000; ++i) {
        std::string line = std::string(i % 3 == 0 ? "" : "2026-11-21 11:50:37.152091 UTC 25526  ") +
                           all[random() % all.size()].first;
        for (unsigned changes = random() % 4; changes > 0; --changes) {
            char &c = line[random() % line.size()];
            c = c >= '0' && c <= '9' && random() % 4 != 0
                    ? static_cast<char>('0' + random() % 10)
                    : some[random() % (changes == 1 ? 10 : some.size())];
        }
        ASSERT_EQ(told(parser.get(), line), told(line)) << line;
    }
}

// ---- Blocks

std::vector<std::string> read_blocks(const std::string &text, size_t size, size_t step)
{
    line_blocks in(size);
    std::vector<std::string> lines;
    text_line line;
    for (size_t at = 0; !in.at_end;) {
        const std::span<char> room = blocks_room(&in);
        const size_t n = std::min({room.size(), step, text.size() - at});
        std::copy_n(text.begin() + static_cast<ptrdiff_t>(at), n, room.begin());
        blocks_filled(&in, n);
        at += n;
        while (next_line(&in, &line))
            lines.push_back((line.is_torn ? "..." : "") + std::string(line.text) +
                            (line.is_ended ? "\n" : ""));
    }
    return lines;
}

TEST(blocks, lines_are_the_same_however_they_are_read)
{
    const std::string text = "one\n\nthree" + std::string(3000, '3') + "\nfour\nlast";
    const std::vector<std::string> lines{"one\n", "\n", text.substr(5, 3006), "four\n", "last"};
    for (const size_t step : {1U, 7U, 4096U, 100000U})
        EXPECT_EQ(read_blocks(text, 8192, step), lines) << step;
}

TEST(blocks, of_a_line_that_is_too_long_the_end_is_left)
{
    const auto lines = read_blocks("a\n" + std::string(10'000'000, 'x') + "end\nb\n", 8192, 5000);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0] + lines[2], "a\nb\n");
    EXPECT_EQ(lines[1].substr(0, 4), "...x");
    EXPECT_EQ(lines[1].substr(lines[1].size() - 6), "xxend\n");
}

} // namespace
