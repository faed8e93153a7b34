// Continuity, timing, presence and reports, under a clock set by hand.

#include "engine/engine.h"
#include "support/lines.h"

#include <gmock/gmock.h>

#include <regex>

using namespace testing;

TEST(continuity, tells_breaks_from_resets_by_the_time_between_zeros)
{
    engine e;
    one_program(&e.c);
    const auto counters = [&e](std::initializer_list<unsigned> values) {
        for (const unsigned value : values) {
            e.c.set_cc(0x101, value);
            e.c.payload(0x101);
        }
        e.feed();
    };
    counters({14, 15, 0, 1, 5, 5, 6, 7, 0}); // the first unexpected zero arms the timer
    g_now.tv_nsec += 29999999;
    counters({9, 0});
    g_now.tv_nsec += 30000000;
    counters({9, 0});
    EXPECT_EQ(e.alerts(), R"(ALERT CC-BRK src 257 0 1 5 0:0[7]
ALERT CC-BRK src 257 0 5 5 0:0[8]
ALERT CC-BRK src 257 0 7 0 0:0[11]
ALERT CC-BRK src 257 0 0 9 0:0[12]
ALERT CC-BRK src 257 0 9 0 0:0[13]
ALERT CC-BRK src 257 0 0 9 0:0[14]
ALERT CC-RST src 257 0 9 0 30 0:0[15]
)");
}

// Some packagers fill up with packets whose adaptation field leaves no room for payload.
TEST(continuity, goes_by_the_payload_bit_of_the_header)
{
    engine e;
    one_program(&e.c);
    e.c.payload(0x101);
    for (const unsigned length : {182U, 183U, 184U, 255U}) { // up to and past the packet's end
        e.c.packet(0x101, {.adaptation = length});
        e.c.packet(0x101, {.has_payload = false}); // has no counter of its own
        e.c.payload(0x101);
    }
    EXPECT_EQ(e.alerts(), "");
    for (const unsigned length : {183U, 255U}) {
        e.c.skip_cc(0x101);
        e.c.packet(0x101, {.adaptation = length});
    }
    EXPECT_EQ(e.alerts(),
              "ALERT CC-BRK src 257 0 8 10 0:0[16]\nALERT CC-BRK src 257 0 10 12 0:0[17]\n");
}

TEST(continuity, correlates_equal_losses_within_a_segment)
{
    engine e;
    one_program(&e.c);
    e.c.set_cc(0x101, 10); // it comes round in the second segment
    for (const unsigned pid : {0x101u, 0x102u, 0x103u})
        e.c.payload(pid);
    const auto lose = [&e](std::initializer_list<unsigned> pids) {
        for (const unsigned pid : pids) {
            e.c.skip_cc(pid, 3);
            e.c.payload(pid);
        }
        e.feed();
        tsan_next_seg(e.t);
    };
    lose({0x101, 0x102, 0x103}); // nothing is correlated in segment 0
    lose({0x101, 0x102, 0x103});
    EXPECT_THAT(e.log(), EndsWith("\n(WRN)  ALERT CC-MLR [src] dgram:1 count=2 at 0:2[11]"));
    lose({0x101, 0x101}); // one PID alone is no correlation
    e.c.payload(0x103);   // a good counter ends it for the segment
    lose({0x101, 0x102});
    EXPECT_THAT(lines_with(e.alerts(), "MLR"), ElementsAre("ALERT CC-MLR src 1 2 0:2[11]"));
}

TEST(timing, pcr_intervals_across_wraps_and_steps)
{
    engine e;
    one_program(&e.c);
    constexpr uint64_t WRAP = uint64_t{1} << 33;
    for (const uint64_t pcr : {WRAP - 1800, WRAP - 900, uint64_t{900}, uint64_t{4500},
                               uint64_t{8190}, uint64_t{8100}, uint64_t{0}, uint64_t{90000}})
        e.c.pcr(0x101, pcr);
    e.c.packet(0x101, {.adaptation = 0}); // no flags: what looks like some is payload
    e.c.skip_cc(0x101);
    e.c.packet(0x101, {.pcr = 90900}); // the tag tells of the PCR before its own
    EXPECT_EQ(e.alerts(), "ALERT PCR-FREQ src 257 4500 8190 41 [0:0[7]:(pcr=4500)+1]\n"
                          "ALERT CC-BRK src 257 0 0 2 0:0[12]:(pcr=90000)+2\n");
    EXPECT_EQ(e.t->pg[0].av_pcr_freq.count, 7u); // neither the first PCR nor the one after 0
    EXPECT_EQ(e.t->pg[0].av_pcr_freq.total, 10u + 20 + 40 + 41 + 0 + 0 + 10);
}

TEST(timing, audio_against_the_pcr_and_the_reference)
{
    engine e;
    one_program(&e.c);
    e.c.pcr(0x101, 900000);
    e.c.pes(0x102, {.pts = 945090}); // 501 ms from the PCR; no reference yet, stays to be checked
    e.c.pes(0x101, {.pts = 945045, .dts = 900089});
    e.c.payload(0x102); // so it is checked again, now also against the video
    e.c.pes(0x102, {.pts = 945090});
    e.c.pes(0x102, {.pts = 900135, .dts = 945089}); // at both thresholds
    e.c.pes(0x102, {.pts = 900135, .dts = 990000});
    e.c.packet(0x102, {.unit_start = true, .adaptation = 190}); // reaches into the next packet
    octets foreign = pes_header({.pts = 1});
    foreign.insert(foreign.begin(), 3, 0xff);
    e.c.packet(0x1fff, {.payload = foreign});
    for (const unsigned room : {7u, 8u, 13u, 14u, 18u}) { // what is cut off is not there
        octets pes = pes_header({.pts = room < 14 ? 1 : 900135, .dts = 1});
        pes.resize(room);
        e.c.packet(0x102, {.unit_start = true, .adaptation = 183 - room, .payload = pes});
    }
    e.c.pes(0x102, {.dts = 1}); // never without a PTS
    EXPECT_EQ(e.alerts(),
              R"(ALERT PCR-DELTA src pts 257 900000 258 945090 501 [0:1[4]:(pcr=900000)+1]
ALERT PCR-DELTA src pts 257 900000 258 945090 501 [0:1[6]:(pcr=900000)+3]
ALERT AV-DELTA0 src pts 257 945045 258 945090 0 [0:1[6]:(pcr=900000)+3]
ALERT PCR-DELTA src dts 257 900000 258 990000 1000 [0:1[9]:(pcr=900000)+6]
ALERT AV-DELTA+ src dts 257 900089 258 990000 999 [0:1[9]:(pcr=900000)+6]
)");
}

TEST(presence, silent_streams_are_looked_for_until_all_have_spoken)
{
    tsan_config cfg = every_check();
    cfg.max_ndat_pcount = 4;
    engine e(cfg);
    one_program(&e.c);
    e.c.payload(0x101, 7);
    e.c.payload(0x102, 1);
    e.c.payload(0x103, 10);
    EXPECT_EQ(e.log(), R"((WRN)  ALERT PID-NDAT [src] 0:1 pid258 received no data 0:0[6]
(WRN)  ALERT PID-NDAT [src] 0:2 pid259 received no data 0:0[6]
(WRN)  [src] 2 tracks NOT receiving data
(WRN)  ALERT PID-NDAT [src] 0:2 pid259 received no data 0:1[10]
(WRN)  [src] 1 tracks NOT receiving data
(NRM)  [src] 3 tracks receiving data
)");
}

TEST(presence, lost_sync_gives_up_when_losses_come_too_thick)
{
    tsan_config cfg = every_check();
    cfg.access_log_alerts = false; // LOST-SYNC goes to the access log all the same
    engine e(cfg);
    e.c.null();
    e.feed();
    for (int i = 0; i < 29; ++i, g_now.tv_sec += i <= 20 ? 3 : 0)
        EXPECT_EQ(tsan_alert_lostsync(e.t), TSAN_OK);
    g_now.tv_sec += 2;
    EXPECT_EQ(tsan_alert_lostsync(e.t), TSAN_CANNOT_GO_ON);
    EXPECT_THAT(e.alerts(), EndsWith("\nALERT LOST-SYNC src 10 [pkt[1]]\n"));
    EXPECT_THAT(e.log(), HasSubstr("(WRN)  ALERT LOST-SYNC [src] seq=10 at pkt[1]\n(ERR)  "
                                   "tsan_alert_lostsync: bailing out after 10 cases within 2 sec"));
    g_now.tv_sec += 100; // there is no new period any more
    EXPECT_EQ(tsan_alert_lostsync(e.t), TSAN_CANNOT_GO_ON);
    EXPECT_EQ(e.t->gac.lost_sync, 31u);
}

TEST(report, stat_lines_of_a_period_and_of_the_run)
{
    engine e;
    one_program(&e.c);
    for (const unsigned pcr : {90000U, 91800U, 93690U})
        e.c.pcr(0x101, pcr);
    e.feed();
    for (const time_t passed : {0, 4, 5}) { // the first call begins the period of 5 seconds
        g_now.tv_sec = 1000 + passed;
        EXPECT_EQ(tsan_check_dump_stats(nullptr, e.t), passed == 5 ? 1 : 0);
    }
    EXPECT_EQ(e.alerts(), R"(STAT GLOBAL src 5000 1 2 0 0 0
STAT PMTs src 0 256 3
STAT PMTi src 0 257 V 3 3 [H.264/14496-10_video_(MPEG-4/AVC)]
STAT PMTi src 0 258 A 0 0 [13818-7_Audio_with_ADTS_transport_syntax]
STAT PMTi src 0 259 S 0 0 [13818-1_PES_private_data]
STAT PRG src 257 3 3 3 3 0 0 0 0
STAT AV-delta src 257 -1 -nan 0 0 0 0 -nan 0 0 0 0
STAT PCR-delta src 257 -1 -nan 0 0 0 0 -nan 0 0 0 0
STAT PCR-freq src 257 -1 20.50 2 41 20 21 20.50 2 41 20 21
STAT ALERT-count src 0 0 0 0 0 0 0 0
)");
    tsan_reset_local_stats(e.t);
    e.c.pcr(0x101, 96390); // 30 ms, which the run's extremes learn with the next value only
    for (const unsigned cc : {3U, 5U}) {
        e.c.set_cc(0x101, cc);
        e.c.payload(0x101);
    }
    e.feed();
    tsan_alog_stats(e.t);
    EXPECT_THAT(e.alerts(), EndsWith("PCR-freq src 257 -1 30.00 1 30 30 30 23.67 3 71 20 21\n"
                                     "STAT ALERT-count src 0 0 0 0 0 1 0 0\n"));
}

// The values that a dump shows.
TEST(settings, of_a_host_that_sets_none)
{
    tsan_config cfg;
    tsan_default_config(&cfg);
    testing::internal::CaptureStdout();
    tsan_dump_config(stdout, "analyzer", &cfg);
    EXPECT_EQ(std::regex_replace(testing::internal::GetCapturedStdout(),
                                 std::regex("analyzer: \n|\t[^\\[\n]*:  +|\n"), " "),
              "  [TS]  9000  10000  500 (ms)  1000 (ms)  100 (ms)  60 (sec)  yes  30 (ms) "
              " no  no  no  no  no  no  no  no  no  yes ");
}
