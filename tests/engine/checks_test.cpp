// Continuity, timing, presence and reports, under a clock set by hand.

#include "engine/engine.h"
#include "misc/mstime.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

namespace {

constexpr uint64_t WRAP = uint64_t{1} << 33;

void counters(capture_builder *c, std::initializer_list<unsigned> values)
{
    for (const unsigned value : values) {
        c->set_cc(0x101, value);
        c->payload(0x101);
    }
}

} // namespace

TEST(continuity, tells_breaks_from_resets_by_the_time_between_zeros)
{
    engine e;
    one_program(&e.c);
    counters(&e.c, {14, 15, 0, 1, 5, 5});
    e.c.packet(0x101, {.has_payload = false});
    e.c.packet(0x101, {.adaptation = 200}); // reaches past the packet
    counters(&e.c, {6, 7, 0});              // the first unexpected zero arms the timer
    EXPECT_EQ(e.log(), "(WRN)  ALERT CC-BRK [src] dgram:0 last/current=1/5 pid=257 at 0:0[7]\n"
                       "(WRN)  ALERT CC-BRK [src] dgram:0 last/current=5/5 pid=257 at 0:0[8]\n"
                       "(WRN)  ALERT CC-BRK [src] dgram:0 last/current=7/0 pid=257 at 0:0[13]\n");
    g_test_now.tv_nsec += 29999999;
    counters(&e.c, {9, 0});
    EXPECT_THAT(e.alerts(), testing::EndsWith("\nALERT CC-BRK src 257 0 0 9 0:0[14]\n"
                                              "ALERT CC-BRK src 257 0 9 0 0:0[15]\n"));
    g_test_now.tv_nsec += 31000000;
    counters(&e.c, {9, 0});
    EXPECT_THAT(e.log(), HasSubstr("(WRN)  ALERT CC-RST [src] dgram:0 last/current=9/0 pid=257 "
                                   "delta_ms=31 at 0:0[17]\n"));
    EXPECT_THAT(e.alerts(), HasSubstr("\nALERT CC-RST src 257 0 9 0 31 0:0[17]\n"));
    EXPECT_EQ(e.t->pg[0].alert.cc_reset, 1u);
    EXPECT_EQ(e.t->pg[0].alert.cc_break, 6u);
}

TEST(continuity, correlates_equal_losses_within_a_segment)
{
    engine e;
    one_program(&e.c);
    for (const unsigned pid : {0x101u, 0x102u, 0x103u})
        e.c.payload(pid);
    e.feed();
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
    EXPECT_EQ(e.t->gac.cc_mlr, 1u);
    EXPECT_THAT(e.app.take(), HasSubstr("\n(WRN)  ALERT CC-MLR [src] dgram:1 count=2 at 0:2[11]"));
    EXPECT_THAT(e.access.take(), HasSubstr("\nALERT CC-MLR src 1 2 0:2[11]\n"));
    lose({0x101, 0x101}); // one PID alone is no correlation
    e.c.payload(0x103);   // a good counter ends it for the segment
    lose({0x101, 0x102});
    EXPECT_EQ(e.t->gac.cc_mlr, 1u);
    EXPECT_EQ(e.t->pg[0].last_seg_idx, 4u);
}

TEST(timing, pcr_intervals_across_wraps_and_steps)
{
    engine e;
    one_program(&e.c);
    for (const uint64_t pcr : {WRAP - 1800, WRAP - 900, uint64_t{900}, uint64_t{4500},
                               uint64_t{8190}, uint64_t{8100}, uint64_t{0}, uint64_t{90000}})
        e.c.pcr(0x101, pcr);
    EXPECT_EQ(e.log(),
              "(WRN)  ALERT PCR-FREQ pid=257 old/new: 4500 [00:00:04.500]/8190 [00:00:08.190] "
              "delta=41\n"
              "(WRN)  calc_pcr_delta: PCR last=8100 < first=8190 diff=18446744073709551526\n"
              "(WRN)  calc_pcr_delta: PCR last=0 < first=8100 diff=18446744073709543516\n");
    EXPECT_EQ(e.alerts(), "ALERT PCR-FREQ src 257 4500 8190 41 [0:0[7]:(pcr=4500)+1]\n");
    const aggr_val &av = e.t->pg[0].av_pcr_freq;
    EXPECT_EQ(av.count, 6u); // neither the first PCR nor the one after 0
    EXPECT_EQ(av.total, 10u + 20 + 40 + 41 + 0 + 0);
}

TEST(timing, audio_against_the_pcr_and_the_reference)
{
    engine e;
    one_program(&e.c);
    e.c.pcr(0x101, 900000);
    e.c.pes(0x102, {.pts = 945090}); // 501 ms from the PCR; no reference yet, stays to be checked
    e.c.pes(0x101, {.pts = 945045, .dts = 900090});
    e.c.payload(0x102); // so it is checked again, now also against the video
    e.c.pes(0x102, {.pts = 945090});
    e.c.pes(0x102, {.pts = 900135, .dts = 990000});
    EXPECT_EQ(e.log(),
              "(WRN)  ALERT PCR-DELTA [src] pcr:pts <> 0:0[3]:0:1[4]:(pcr=900000)+1 V:pcr(pid257)/"
              "A:pts(pid258) = 900000 [00:00:10.000]/ 945090 [00:00:10.501] delta=501\n"
              "(WRN)  ALERT PCR-DELTA [src] pcr:pts <> 0:0[3]:0:1[6]:(pcr=900000)+3 V:pcr(pid257)/"
              "A:pts(pid258) = 900000 [00:00:10.000]/ 945090 [00:00:10.501] delta=501\n"
              "(WRN)  ALERT AV-DELTA0 [src] 0:1[6]:(pcr=900000)+3 V:pts(pid257)/A:pts(pid258) = "
              "945045 [00:00:10.500]/945090 [00:00:10.501] PCR=900000 [00:00:10.000], delta=0\n"
              "(WRN)  ALERT PCR-DELTA [src] pcr:dts <> 0:0[3]:0:1[8]:(pcr=900000)+5 V:pcr(pid257)/"
              "A:dts(pid258) = 900000 [00:00:10.000]/ 990000 [00:00:11.000] delta=1000\n"
              "(WRN)  ALERT AV-DELTA+ [src] 0:1[8]:(pcr=900000)+5 V:dts(pid257)/A:dts(pid258) = "
              "900090 [00:00:10.001]/990000 [00:00:11.000] PCR=900000 [00:00:10.000], delta=999\n");
    EXPECT_EQ(e.alerts(), "ALERT PCR-DELTA src pts 257 900000 258 945090 501 "
                          "[0:1[4]:(pcr=900000)+1]\n"
                          "ALERT PCR-DELTA src pts 257 900000 258 945090 501 "
                          "[0:1[6]:(pcr=900000)+3]\n"
                          "ALERT AV-DELTA0 src pts 257 945045 258 945090 0 "
                          "[0:1[6]:(pcr=900000)+3]\n"
                          "ALERT PCR-DELTA src dts 257 900000 258 990000 1000 "
                          "[0:1[8]:(pcr=900000)+5]\n"
                          "ALERT AV-DELTA+ src dts 257 900090 258 990000 999 "
                          "[0:1[8]:(pcr=900000)+5]\n");
    EXPECT_EQ(e.t->pg[0].av_pdts_delta.max, 999u);
}

TEST(timing, time_stamps_that_are_cut_off_are_not_there)
{
    engine e;
    one_program(&e.c);
    for (const unsigned room : {7u, 8u, 13u, 14u, 18u, 19u}) { // bytes of the PES header
        octets pes = pes_header({.pts = room * 1000, .dts = room * 100});
        pes.resize(room);
        e.c.packet(0x102, {.unit_start = true, .adaptation = 183 - room, .payload = pes});
    }
    e.feed();
    EXPECT_EQ(e.t->pg[0].stm[1].last_pts, 19000u);
    EXPECT_EQ(e.t->pg[0].stm[1].pts_pktnum, 8u);
    EXPECT_EQ(e.t->pg[0].stm[1].last_dts, 1900u);
    EXPECT_EQ(e.t->pg[0].stm[1].dts_pktnum, 8u);
    EXPECT_EQ(ms_timestr(90061001).text, std::string("25:01:01.001"));
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
    EXPECT_EQ(e.log(), "(WRN)  ALERT PID-NDAT [src] 0:1 pid258 received no data 0:0[6]\n"
                       "(WRN)  ALERT PID-NDAT [src] 0:2 pid259 received no data 0:0[6]\n"
                       "(WRN)  [src] 2 tracks NOT receiving data\n"
                       "(WRN)  ALERT PID-NDAT [src] 0:2 pid259 received no data 0:1[10]\n"
                       "(WRN)  [src] 1 tracks NOT receiving data\n"
                       "(NRM)  [src] 3 tracks receiving data\n");
    EXPECT_EQ(e.t->ndat_pcount, 0u);
    e.c.pat({{1, 0x100}, {2, 0x200}}, {.version = 1}); // no current programme
    e.c.pmt(0x200, {.pcr_pid = 0x201, .streams = {{0x1b, 0x201}}});
    e.c.pat({{1, 0x100}, {2, 0x200}}, {.version = 1});
    e.feed();
    EXPECT_EQ(e.t->ndat_pcount, 4u);
    e.alerts();
    tsan_check_ndat(e.t);
    EXPECT_EQ(e.alerts(), "ALERT PID-NDAT src 513 1 0 PAT[23]\n");
    EXPECT_EQ(e.t->pg[0].alert.pid_ndat, 3u);
    EXPECT_EQ(e.t->pg[1].alert.pid_ndat, 0u);
}

TEST(presence, lost_sync_gives_up_when_losses_come_too_thick)
{
    tsan_config cfg = every_check();
    cfg.access_log_alerts = false; // LOST-SYNC goes to the access log all the same
    engine e(cfg);
    e.c.null();
    e.feed();
    for (int i = 0; i < 20; ++i, g_test_now.tv_sec += 3)
        EXPECT_EQ(tsan_alert_lostsync(e.t), 0);
    EXPECT_THAT(e.app.take(), testing::EndsWith("(WRN)  ALERT LOST-SYNC [src] seq=1 at pkt[1]\n"));
    EXPECT_EQ(tsan_alert_lostsync(e.t), 0);
    EXPECT_THAT(e.access.take(), testing::EndsWith("\nALERT LOST-SYNC src 1 [pkt[1]]\n"));
    for (int i = 2; i <= 9; ++i)
        EXPECT_EQ(tsan_alert_lostsync(e.t), 0);
    g_test_now.tv_sec += 2;
    EXPECT_EQ(tsan_alert_lostsync(e.t), -1);
    EXPECT_THAT(e.app.take(), testing::EndsWith("(ERR)  tsan_alert_lostsync: bailing out after 10 "
                                                "cases within 2 sec\n"));
    g_test_now.tv_sec += 100; // there is no new period any more
    EXPECT_EQ(tsan_alert_lostsync(e.t), -1);
}

TEST(report, stat_lines_of_a_period_and_of_the_run)
{
    tsan_config cfg = every_check();
    cfg.dump_stats_period = 5;
    engine e(cfg);
    one_program(&e.c);
    e.c.pcr(0x101, 90000);
    e.c.pcr(0x101, 91800);
    e.c.pcr(0x101, 93690);
    e.feed();
    EXPECT_EQ(tsan_check_dump_stats(nullptr, e.t), 0); // begins the period
    g_test_now.tv_sec += 4;
    EXPECT_EQ(tsan_check_dump_stats(nullptr, e.t), 0);
    g_test_now.tv_sec += 1;
    EXPECT_EQ(tsan_check_dump_stats(nullptr, e.t), 1);
    EXPECT_EQ(e.alerts(), "STAT GLOBAL src 5000 1 2 0 0 0\n"
                          "STAT PMTs src 0 256 3\n"
                          "STAT PMTi src 0 257 V 3 3 [H.264/14496-10_video_(MPEG-4/AVC)]\n"
                          "STAT PMTi src 0 258 A 0 0 [13818-7_Audio_with_ADTS_transport_syntax]\n"
                          "STAT PMTi src 0 259 S 0 0 [13818-1_PES_private_data]\n"
                          "STAT PRG src 257 3 3 3 3 0 0 0 0\n"
                          "STAT AV-delta src 257 -1 -nan 0 0 0 0 -nan 0 0 0 0\n"
                          "STAT PCR-delta src 257 -1 -nan 0 0 0 0 -nan 0 0 0 0\n"
                          "STAT PCR-freq src 257 -1 20.50 2 41 20 21 20.50 2 41 20 21\n"
                          "STAT ALERT-count src 0 0 0 0 0 0 0 0\n");
    tsan_reset_local_stats(e.t);
    e.c.pcr(0x101, 96390); // 30 ms, which the run's extremes learn with the next value only
    e.c.null();
    e.feed();
    tsan_alog_stats(e.t);
    EXPECT_EQ(e.access.take(), "STAT GLOBAL src 5000 1 2 0 0 0\n"
                               "STAT PRG src 0 4 4 4 4 0 0 0 0\n"
                               "STAT AV-delta src 257 -1 -nan 0 0 0 0 -nan 0 0 0 0\n"
                               "STAT PCR-delta src 257 -1 -nan 0 0 0 0 -nan 0 0 0 0\n"
                               "STAT PCR-freq src 257 -1 30.00 1 30 30 30 23.67 3 71 20 21\n"
                               "STAT ALERT-count src 0 0 0 0 0 0 0 0\n");
}
