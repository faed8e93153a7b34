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
    for (size_t i = 0; i < fields.size(); ++i)
        if (fields[i].type == field_type::text)
            text += " type=" + std::string(event.text);
        else if (fields[i].name != nullptr)
            text += std::string(" ") + fields[i].name + "=" +
                    std::to_string(static_cast<int64_t>(event.values[i]));
    const tag_info &tag = event.tag;
    if (is_alert(event.kind) && tag.has_packet)
        text += " at " + std::to_string(tag.programme) + ":" + std::to_string(tag.stream) + "[" +
                std::to_string(tag.packet) + "]";
    if (is_alert(event.kind) && tag.has_pcr)
        text += " pcr=" + std::to_string(tag.pcr_ticks) + "+" + std::to_string(tag.pcr_packets);
    return text + (event.time.empty() ? "" : " time=" + std::string(event.time)) +
           (event.is_rescued ? " rescued" : "");
}

std::string told(const std::string &line)
{
    return told(std::make_unique<line_parser>().get(), line);
}

struct line_case {
    const char *message, *found;
};

const line_case MESSAGES[] = {
    {"ALERT CC-BRK news 256 3 12 14 0:0[286]:(pcr=156600)+11",
     "CC-BRK news pid=256 segment=3 last_counter=12 current_counter=14 at 0:0[286] pcr=156600+11"},
    {"ALERT CC-RST n 8191 0 5 0 30012 31:63[18446744073709551615]",
     "CC-RST n pid=8191 segment=0 last_counter=5 current_counter=0 since_ms=30012 at "
     "31:63[18446744073709551615]"},
    {"ALERT CC-MLR n 7 2 pkt[9]", "CC-MLR n segment=7 count=2 at -1:-1[9]"},
    {"ALERT PCR-FREQ n 256 171000 187200 180 [0:0[329]:(pcr=171000)+13]",
     "PCR-FREQ n pid=256 old_pcr_ticks=171000 new_pcr_ticks=187200 delta_ms=180 at 0:0[329] "
     "pcr=171000+13"},
    {"ALERT PCR-DELTA n dts 256 8589934591 257 1 95443 [0:1[3]]",
     "PCR-DELTA n stamp=1 pcr_pid=256 pcr_ticks=8589934591 pid=257 stamp_ticks=1 delta_ms=95443 at "
     "0:1[3]"},
    {"ALERT AV-DELTA+ n pts 256 360000 257 272698 970 [0:1[552]]",
     "AV-DELTA+ n stamp=0 video_pid=256 video_ticks=360000 pid=257 stamp_ticks=272698 delta_ms=970 "
     "at 0:1[552]"},
    {"ALERT AV-DELTA0 n pts 1 2 3 4 0 [0:1[5]]",
     "AV-DELTA0 n stamp=0 video_pid=1 video_ticks=2 pid=3 stamp_ticks=4 delta_ms=0 at 0:1[5]"},
    {"ALERT PAT-DIFF n 0 3 1 2 PAT[77]", "PAT-DIFF n programmes=3 added=1 deleted=2 at -1:-1[77]"},
    {"ALERT PMT-DIFF n 4096 2 3 256 1:M[78]:(pcr=5)+0",
     "PMT-DIFF n pid=4096 streams_before=2 entries_now=3 pcr_pid=256 at 1:-1[78] pcr=5+0"},
    {"ALERT PID-NDAT n 259 1 0 0:-1[6]", "PID-NDAT n pid=259 programme=1 stream=0 at 0:-1[6]"},
    {"ALERT LOST-SYNC n 4 []", "LOST-SYNC n sequence=4"},
    {"STAT GLOBAL n -1 2 13 4 5 6", "GLOBAL n duration_ms=-1 programmes=2 packets_skipped=13 "
                                    "LOST-SYNC=4 PAT-DIFF=5 CC-MLR=6"},
    {"STAT PMTs n 1 4097 2", "PMTs n programme=1 pmt_pid=4097 streams=2"},
    {"STAT PMTi n 1 258 V 83 82 [H.264_video]",
     "PMTi n programme=1 pid=258 class=86 packets=83 analysed=82 type=H.264_video"},
    {"STAT PRG n 256 1 2 3 4 5 6 7 8",
     "PRG n latest_pcr_pid=256 packets=1 analysed=2 video_packets=3 video_analysed=4 "
     "audio_packets=5 audio_analysed=6 private_packets=7 private_analysed=8"},
    {"STAT AV-delta n 256 -1 538.89 9 4850 370 970 538.89 10 4851 1 971",
     "AV-delta n pid=256 period_count=9 period_sum=4850 period_min=370 period_max=970 count=10 "
     "sum=4851 min=1 max=971"},
    {"STAT PCR-freq n -1 -1 -nan 0 0 0 0 -nan 0 0 0 0",
     "PCR-freq n pid=-1 period_count=0 period_sum=0 period_min=0 period_max=0 count=0 sum=0 min=0 "
     "max=0"},
    {"STAT ALERT-count n 1 1 2 3 4 5 6 7", "ALERT-count n programme=1 AV-DELTA+=1 AV-DELTA0=2 "
                                           "PCR-DELTA=3 PCR-FREQ=4 CC-BRK=5 CC-RST=6 PID-NDAT=7"},
    {"ALERT CC-MLR a tag of 4 words 7 2 pkt[9]",
     "CC-MLR a tag of 4 words segment=7 count=2 at -1:-1[9]"},
    {"ALERT CC-MLR  7 2 pkt[9]", "CC-MLR  segment=7 count=2 at -1:-1[9]"}, // an empty source tag
};

TEST(lines, every_kind_is_taken_apart_in_every_layout)
{
    const std::pair<const char *, const char *> heads[] = {
        {"2026-11-21 11:50:37.152091 UTC 25526  ", " time=2026-11-21 11:50:37.152091 UTC"},
        {"2026-11-21 11:50:37 CET ", " time=2026-11-21 11:50:37 CET"},
        {"1795261837.152091 25526  ", " time=1795261837.152091"},
        {"", ""},
        {"host7  2026-11-21 11:50:37.152091 +03 25526  GRP  ",
         " time=2026-11-21 11:50:37.152091 +03"}};
    const auto parser = std::make_unique<line_parser>();
    for (const auto &[head, time] : heads)
        for (const auto &[message, found] : MESSAGES)
            for (const char *end : {"", "\r", ""}) // the last is like one before
                EXPECT_EQ(told(parser.get(), std::string(head) + message + end),
                          std::string(found) + time);
}

TEST(lines, what_is_no_machine_line_is_told_apart)
{
    const std::string head = "2026-11-21 11:50:37.152091 UTC 25526  ";
    const std::string good = "ALERT CC-MLR n 7 2 pkt[9]";
    const std::string found = "CC-MLR n segment=7 count=2 at -1:-1[9]";
    const std::string time = " time=2026-11-21 11:50:37.152091 UTC";
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
        {std::string(70, '\0') + head + good, found + time + " rescued"},
        {head + "ALERT CC-MLR n 7 " + head + good, found + time + " rescued"},
    };
    for (const auto &[line, result] : cases)
        EXPECT_EQ(told(line), result) << line;
}

// A parser that has seen other lines finds in a line what a new one finds.
TEST(lines, what_the_parser_remembers_changes_nothing)
{
    std::minstd_rand random(1);
    const auto parser = std::make_unique<line_parser>();
    const std::string some = "0123456789 :[]()+=-\0azAPT";
    for (int i = 0; i < 30000; ++i) {
        std::string line = std::string(i % 3 == 0 ? "" : "2026-11-21 11:50:37.152091 UTC 25526  ") +
                           MESSAGES[random() % std::size(MESSAGES)].message;
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
    const std::vector<std::string> lines{"one\n", "\n", "three" + std::string(3000, '3') + "\n",
                                         "four\n", "last"};
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
