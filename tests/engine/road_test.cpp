// The road of one packet: what a PID means, when a run stops, what a packet costs.

#include "engine/engine.h"

#include <gmock/gmock.h>

#include <new>

static size_t g_allocations;

[[gnu::noinline]] void *operator new(size_t size)
{
    ++g_allocations;
    return malloc(size);
}
[[gnu::noinline]] void *operator new(size_t size, const std::nothrow_t & /*tag*/) noexcept
{
    ++g_allocations;
    return malloc(size);
}
[[gnu::noinline]] void operator delete(void *p) noexcept { free(p); }
[[gnu::noinline]] void operator delete(void *p, size_t) noexcept { free(p); }

TEST(road, an_ordinary_packet_allocates_nothing_and_reads_no_clock)
{
    engine e;
    one_program(&e.c);
    for (uint64_t t = 900000; t < 900000 + 2000 * 3600; t += 3600) {
        e.c.pes(0x101, {.pts = t + 9000, .dts = t, .pcr = t});
        e.c.payload(0x101, 10);
        e.c.pes(0x102, {.pts = t + 9000});
        e.c.payload(0x102, 5);
        e.c.null(2);
        one_program(&e.c);
    }
    for (; e.fed < 3; ++e.fed) // every stream of a programme is known, the first PCR taken
        tsan_process(e.t, e.c.at(e.fed));
    g_allocations = g_clock_reads = 0;
    EXPECT_EQ(e.feed(), TSAN_OK);
    // The first repetition of each table is printed and compared; all the others are known.
    EXPECT_LT(g_allocations, 20u);
    EXPECT_EQ(g_clock_reads, 0u);
    EXPECT_EQ(e.log() + e.alerts(), "");
    EXPECT_EQ(e.t->atotal, 34000u);
    EXPECT_EQ(e.t->pg[0].av_pdts_delta.count, 2000u);
}

TEST(road, a_pid_means_its_first_pmt_slot_then_the_first_stream)
{
    engine e;
    e.c.pat({{1, 0x100}, {2, 0x200}, {3, 0x100}});
    e.c.pmt(0x200,
            {.pcr_pid = 0x201, .streams = {{0x1b, 0x201}, {0x0f, 0x300}, {3, 0x100}, {3, 17}}});
    e.c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x0f, 0x300}, {0x1b, 0x101}, {0x04, 0x300}}});
    const std::pair<unsigned, std::string> cases[] = {
        {0, "PAT[4]"},     {0x100, "0:M[5]"}, {0x200, "1:M[6]"},   {0x300, "0:0[7]"},
        {0x101, "0:1[8]"}, {0x201, "1:0[9]"}, {0x1fff, "pkt[10]"}, {17, "1:3[11]"}};
    for (const auto &[pid, tag] : cases) {
        e.c.packet(pid, {.has_payload = false});
        e.feed();
        tsan_alert_lostsync(e.t); // tells the packet's tag
        EXPECT_THAT(e.alerts(), testing::EndsWith("[" + tag + "]\n"));
    }
    EXPECT_EQ(e.t->atotal, 3u); // that of PID 17 is disregarded, though listed
}

TEST(road, a_run_stops_on_an_idle_source_and_out_of_sync)
{
    tsan_config cfg = every_check();
    cfg.max_skip_pkts = 3;
    engine e(cfg);
    e.c.null(4);
    EXPECT_EQ(e.feed(), TSAN_IDLE);
    EXPECT_EQ(e.feed(), TSAN_IDLE);
    EXPECT_EQ(e.log(), "(ERR)  [src] has been idling for too long (3/3 packets)\n"); // once
    g_now.tv_sec += 11;
    e.c.null();
    EXPECT_EQ(e.log(), "(ERR)  [src] has been idling for too long (5/3 packets)\n");
    e.c.null();
    e.c.last(0) = 0x48;
    EXPECT_EQ(e.feed(), TSAN_CANNOT_GO_ON);
    EXPECT_EQ(e.log(), "(ERR)  tsan_process: [src] out of sync at pkt[6]\n");
}
