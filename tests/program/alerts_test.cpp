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

TEST(alerts, of_a_damaged_sample_are_the_expected_and_no_more)
{
    const run_result run =
        orvscan({"-S", "T", "-a", "on", "-A", "pdts_delta=560", "-A", "pcr_delta=1500", "-A",
                 "pcr_freq=100", ORVSCAN_TESTS "/../samples/damaged.ts"});
    EXPECT_EQ(run.out + run.err, expected("damaged"));
}

TEST(alerts, of_undamaged_samples_are_none)
{
    for (const std::string name : {"single", "two_programmes"}) {
        const std::string capture = name + ".ts", line = "exec orvscan -v " + capture;
        run_result run = comparable(run_shell(ORVSCAN_TESTS "/../samples", line));
        replace_all(&run.err, capture, "CAPTURE");
        EXPECT_EQ(run.out + run.err, expected(name));
    }
}
