// Whole runs, on a capture with an alert of every kind and on the samples (samples/README.md tells
// what other tools say of them). All that a run writes stands in expected/.

#include "program.h"
#include "support/capture.h"

#include <gtest/gtest.h>

#include <regex>

static std::string expected(const std::string &run)
{
    return file_text(ORVSCAN_TESTS "/program/expected/" + run + ".txt");
}

// The 33 bits of a time stamp, spread over five bytes.
static uint64_t read_pts(const std::string &bytes)
{
    const auto byte = [&bytes](size_t i) { return static_cast<uint64_t>(bytes[i] & 0xff); };
    return (byte(0) & 0x0e) << 29 | byte(1) << 22 | (byte(2) & 0xfe) << 14 | byte(3) << 7 |
           byte(4) >> 1;
}

TEST(alerts, every_kind_in_both_forms)
{
    capture_builder c;
    c.pat({{1, 0x100}});
    const std::vector<es_entry> streams{{0x1b, 0x101}, {0x0f, 0x102}, {0x06, 0x103}};
    c.pmt(0x100, {.pcr_pid = 0x101, .streams = streams});
    c.pes(0x101, {.pts = 945000, .pcr = 900000});
    c.pes(0x102, {.pts = 945045}); // half a millisecond from the video, 500 from the PCR
    c.pcr(0x101, 909090);
    c.pes(0x102, {.pts = 855000});
    c.skip_cc(0x102, 2);
    c.payload(0x102);
    for (const unsigned cc : {9U, 0U, 9U, 0U}) {
        c.set_cc(0x101, cc);
        c.payload(0x101);
    }
    c.pmt(0x100, {.pcr_pid = 0x101, .version = 1, .streams = streams});
    c.pat({{1, 0x100}, {2, 0x200}}, {.version = 1});
    const temp_dir dir;
    const std::string capture = dir.file("c.ts", c.text());
    // Seconds that wrap to a negative number of milliseconds: each zero after the first is a reset.
    const std::string settings = dir.file("s.cfg", R"(orv: { stream_analyzer: { enabled = true;
        source_tag = "T"; max_pdts_delta_ms = 500; max_pcr_delta_ms = 500; pcr_freq_ms = 100;
        dump_stats_period = 9; cc: { track = true; max_zreset_time = 3000000; } } })");
    setenv("SHOW_ORV_CFG", "", 1);
    const run_result run = orvscan({"-C", settings, "-a", "on", capture});
    unsetenv("SHOW_ORV_CFG");
    EXPECT_EQ(std::regex_replace(run.out + run.err, std::regex("(CC-RST T.* 9 0 |delta_ms=)\\d+"),
                                 "$1MS"),
              expected("every_kind"));
    // Off, the analyzer goes on following the tables.
    const run_result off = orvscan({"-C", settings, "-HA", "off", "-A", "pcr_freq=0", capture});
    EXPECT_EQ(lines_with(off.out + off.err, "ALERT ").size(), 0U);
    EXPECT_EQ(lines_with(off.err, "PMT-DIFF:          1").size(), 1U);
}

// Damage by record number of two_programmes.ts: 303 is dropped, 350 repeated, the PCR of 356 moved
// by 100 ms, the audio of the first programme set back by 600 ms from 600 on, and PID 259 silenced.
TEST(alerts, of_a_damaged_sample_are_the_expected_and_no_more)
{
    const std::string sample = file_text(ORVSCAN_TESTS "/../samples/two_programmes.ts");
    std::string damaged;
    for (size_t record = 1; record * PKT_SIZE <= sample.size(); ++record) {
        std::string pkt = sample.substr((record - 1) * PKT_SIZE, PKT_SIZE);
        const int pid = (pkt[1] & 0x1f) << 8 | (pkt[2] & 0xff);
        if (pid == 259 || record == 303)
            continue;
        if (record == 356) // 9000 ticks, the lowest bit of which is not in these two bytes
            pkt[8] = static_cast<char>(pkt[8] + 17), pkt[9] = static_cast<char>(pkt[9] + 148);
        if (pid == 257 && record >= 600 && (pkt[1] & 0x40) != 0) {
            const size_t pts =
                13U + ((pkt[3] & 0x20) != 0 ? 1U + static_cast<uint8_t>(pkt[4]) : 0U);
            const octets moved = pes_header({.pts = read_pts(pkt.substr(pts)) - 54000});
            pkt.replace(pts, 5, std::string(moved.begin() + 9, moved.end()));
        }
        damaged += record == 350 ? pkt + pkt : pkt;
    }
    const temp_dir dir;
    const run_result run =
        orvscan({"-S", "T", "-a", "on", "-A", "pdts_delta=560", "-A", "pcr_delta=1500", "-A",
                 "pcr_freq=100", dir.file("d", damaged)});
    EXPECT_EQ(run.out + run.err, expected("damaged"));
}

TEST(alerts, of_undamaged_samples_are_none)
{
    for (const std::string name : {"single", "two_programmes"}) {
        const std::string capture = ORVSCAN_TESTS "/../samples/" + name + ".ts";
        run_result run = orvscan({"-v", capture});
        replace_all(&run.err, capture, "CAPTURE");
        EXPECT_EQ(run.out + run.err, expected(name));
    }
}
