// Alerts of whole runs, in both forms and complete: on a capture made for them, and on a sample
// damaged on purpose.

#include "support/capture.h"
#include "support/lines.h"
#include "support/process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

using testing::ElementsAre;

namespace {

// The messages of the warnings and errors of an application log.
std::vector<std::string> warnings(const run_result &run)
{
    std::vector<std::string> found;
    const std::regex line(R"(^@ \((WRN|ERR)\)  FSCN  (.*))");
    std::smatch match;
    for (const std::string &text : split_lines(unstamped(run.err, run.pid)))
        if (std::regex_match(text, match, line))
            found.push_back(match[2]);
    return found;
}

std::vector<std::string> alerts(const run_result &run)
{
    return lines_with(unstamped(run.out, run.pid), "ALERT");
}

uint8_t *stamp_field(octets *pkt, size_t header) // of a PES header behind an adaptation field
{
    const size_t field = ((*pkt)[3] & 0x20) != 0 ? 1u + (*pkt)[4] : 0u;
    return pkt->data() + 4 + field + header;
}

// Moves a PTS by a number of ticks.
void shift_pts(octets *pkt, int64_t ticks)
{
    uint8_t *p = stamp_field(pkt, 9);
    uint64_t pts = (p[0] & 0x0eull) << 29 | uint64_t{p[1]} << 22 | (p[2] & 0xfeull) << 14 |
                   uint64_t{p[3]} << 7 | p[4] >> 1;
    pts += static_cast<uint64_t>(ticks);
    const octets header = pes_header({.pts = pts});
    std::copy(header.begin() + 9, header.end(), p);
}

} // namespace

TEST(alerts, every_kind_in_both_forms)
{
    capture_builder c;
    c.pat({{1, 0x100}});
    const std::vector<pmt_entry> streams{{0x1b, 0x101}, {0x0f, 0x102}, {0x06, 0x103}};
    c.pmt(0x100, {.pcr_pid = 0x101, .streams = streams});
    c.pes(0x101, {.pts = 945000, .pcr = 900000});
    c.pes(0x102, {.pts = 945045}); // half a millisecond from the video, 500 from the PCR
    c.pcr(0x101, 909090);
    c.pes(0x102, {.pts = 855000});
    c.skip_cc(0x102, 2);
    c.payload(0x102);
    for (int i = 0; i < 2; ++i) {
        c.set_cc(0x101, 9);
        c.payload(0x101);
        c.set_cc(0x101, 0);
        c.payload(0x101);
    }
    c.pmt(0x100, {.pcr_pid = 0x101, .version = 1, .streams = streams});
    c.pat({{1, 0x100}, {2, 0x200}}, {.version = 1});
    const temp_dir dir;
    c.write_file(dir.path("c.ts"));
    // Seconds that wrap to a negative number of milliseconds: each zero after the first is a reset.
    const std::string settings = dir.file("s.cfg", R"(orv: { stream_analyzer: { enabled = true;
        source_tag = "T"; max_pdts_delta_ms = 500; max_pcr_delta_ms = 500; pcr_freq_ms = 100;
        cc: { track = true; max_zreset_time = 3000000; } } })");
    const run_result run =
        run_process({ORVSCAN_PROGRAM, "-C", settings, "-a", "on", dir.path("c.ts")});
    EXPECT_EQ(run.status, 0);

    const std::string tag = ":(pcr=909090)+";
    const std::string pcr = "909090 [00:00:10.101]";
    std::vector<std::string> err = warnings(run);
    std::vector<std::string> out = alerts(run);
    for (auto *list : {&err, &out})
        for (std::string &line : *list)
            line = std::regex_replace(line, std::regex("(delta_ms=| 9 0 )\\d+ (at )?(0:0.11)"),
                                      "$1MS $2$3");
    EXPECT_THAT(
        err,
        ElementsAre(
            "ALERT AV-DELTA0 [T] 0:1[4]:(pcr=900000)+1 V:pts(pid257)/A:pts(pid258) = 945000 "
            "[00:00:10.500]/945045 [00:00:10.500] PCR=900000 [00:00:10.000], delta=0",
            "ALERT PCR-FREQ pid=257 old/new: 900000 [00:15:00.000]/909090 [00:15:09.090] delta=101",
            "ALERT PCR-DELTA [T] pcr:pts <> 0:0[5]:(pcr=900000)+2:0:1[6]" + tag +
                "1 V:pcr(pid257)/A:pts(pid258) = " + pcr + "/ 855000 [00:00:09.500] delta=601",
            "ALERT AV-DELTA+ [T] 0:1[6]" + tag +
                "1 V:pts(pid257)/A:pts(pid258) = 945000 [00:00:10.500]/855000 [00:00:09.500] PCR=" +
                pcr + ", delta=1000",
            "ALERT CC-BRK [T] dgram:0 last/current=1/4 pid=258 at 0:1[7]" + tag + "2",
            "ALERT CC-BRK [T] dgram:0 last/current=0/9 pid=257 at 0:0[8]" + tag + "3",
            "ALERT CC-BRK [T] dgram:0 last/current=9/0 pid=257 at 0:0[9]" + tag + "4",
            "ALERT CC-BRK [T] dgram:0 last/current=0/9 pid=257 at 0:0[10]" + tag + "5",
            "ALERT CC-RST [T] dgram:0 last/current=9/0 pid=257 delta_ms=MS at 0:0[11]" + tag + "6",
            "ALERT PMT-DIFF [T] track-count: 3/3 pid=256 pcr-pid=257 at 0:M[12]" + tag + "7",
            "add_stream: 1+ video: ref_idx already set (to 0)", "[T] pid512 ADDED in new PAT",
            "ALERT PAT-DIFF [T] PMTs added/deleted: 1/0 progs=2 at PAT[13]",
            "ALERT PID-NDAT [T] 0:2 pid259 received no data PAT[13]",
            "[T] 1 tracks NOT receiving data"));
    EXPECT_THAT(
        out,
        ElementsAre("@ PID  ALERT AV-DELTA0 T pts 257 945000 258 945045 0 "
                    "[0:1[4]:(pcr=900000)+1]",
                    "@ PID  ALERT PCR-FREQ T 257 900000 909090 101 "
                    "[0:0[5]:(pcr=900000)+2]",
                    "@ PID  ALERT PCR-DELTA T pts 257 909090 258 855000 601 [0:1[6]" + tag + "1]",
                    "@ PID  ALERT AV-DELTA+ T pts 257 945000 258 855000 1000 [0:1[6]" + tag + "1]",
                    "@ PID  ALERT CC-BRK T 258 0 1 4 0:1[7]" + tag + "2",
                    "@ PID  ALERT CC-BRK T 257 0 0 9 0:0[8]" + tag + "3",
                    "@ PID  ALERT CC-BRK T 257 0 9 0 0:0[9]" + tag + "4",
                    "@ PID  ALERT CC-BRK T 257 0 0 9 0:0[10]" + tag + "5",
                    "@ PID  ALERT CC-RST T 257 0 9 0 MS 0:0[11]" + tag + "6",
                    "@ PID  ALERT PMT-DIFF T 256 3 3 257 0:M[12]" + tag + "7",
                    "@ PID  ALERT PAT-DIFF T 0 2 1 0 PAT[13]",
                    "@ PID  ALERT PID-NDAT T 259 0 2 PAT[13]"));
    const run_result hushed =
        run_process({ORVSCAN_PROGRAM, "-C", settings, "-H", "-a", "off", dir.path("c.ts")});
    EXPECT_THAT(lines_with(hushed.err + hushed.out, "ALERT "), ElementsAre());
    EXPECT_THAT(lines_with(hushed.err, "CC-BRK:            4"), testing::SizeIs(1));
}

// The recipe, by record number of two_programmes.ts: drop 303, repeat 350, move the PCR of 356 by
// 100 ms, the audio of the first programme back by 600 ms from 600 on, and silence PID 259.
TEST(alerts, of_a_damaged_sample_are_the_expected_and_no_more)
{
    const std::string sample = file_text(std::string(ORVSCAN_SAMPLES) + "/two_programmes.ts");
    std::string damaged;
    for (size_t record = 1; record * PKT_SIZE <= sample.size(); ++record) {
        const auto at = sample.begin() + static_cast<ssize_t>((record - 1) * PKT_SIZE);
        octets pkt(at, at + PKT_SIZE);
        const unsigned pid = (pkt[1] & 0x1fu) << 8 | pkt[2];
        if (pid == 259 || record == 303)
            continue;
        if (record == 350)
            damaged.append(pkt.begin(), pkt.end());
        if (record == 356)
            pkt[8] = static_cast<uint8_t>(pkt[8] + 17), pkt[9] = static_cast<uint8_t>(pkt[9] + 148);
        if (record >= 600 && pid == 257 && (pkt[1] & 0x40) != 0)
            shift_pts(&pkt, -54000);
        damaged.append(pkt.begin(), pkt.end());
    }
    const temp_dir dir;
    const run_result run =
        run_process({ORVSCAN_PROGRAM, "-S", "T", "-a", "on", "-A", "pdts_delta=560", "-A",
                     "pcr_delta=1500", "-A", "pcr_freq=100", dir.file("d.ts", damaged)});
    EXPECT_THAT(alerts(run),
                ElementsAre("@ PID  ALERT CC-BRK T 256 0 12 14 0:0[286]:(pcr=156600)+11",
                            "@ PID  ALERT CC-BRK T 256 0 15 15 0:0[323]:(pcr=171000)+7",
                            "@ PID  ALERT PCR-FREQ T 256 171000 187200 180 "
                            "[0:0[329]:(pcr=171000)+13]",
                            "@ PID  ALERT AV-DELTA+ T pts 256 360000 257 272698 970 "
                            "[0:1[552]:(pcr=293400)+4]",
                            "@ PID  ALERT AV-DELTA+ T pts 256 392400 257 305098 970 "
                            "[0:1[611]:(pcr=322200)+8]",
                            "@ PID  ALERT AV-DELTA+ T pts 256 399600 257 337498 690 "
                            "[0:1[633]:(pcr=329400)+10]",
                            "@ PID  ALERT PID-NDAT T 259 1 1 0:1[636]:(pcr=329400)+13"));
    const std::vector<std::string> all = warnings(run);
    ASSERT_EQ(all.size(), 9u); // the alerts, and
    EXPECT_EQ(all[3], "calc_pcr_delta: PCR last=185400 < first=187200 diff=18446744073709549816");
    EXPECT_EQ(all[8], "[T] 1 tracks NOT receiving data");
}
