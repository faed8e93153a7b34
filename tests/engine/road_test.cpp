// The road of one packet: what a PID means, when a run stops, what a packet costs.

#include "engine/engine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <new>

using testing::HasSubstr;

static size_t g_allocations;
static bool g_no_memory;

[[gnu::noinline]] void *operator new(size_t size)
{
    ++g_allocations;
    return malloc(size);
}
[[gnu::noinline]] void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    ++g_allocations;
    return g_no_memory ? nullptr : malloc(size);
}
[[gnu::noinline]] void *operator new(size_t size, std::align_val_t align,
                                     const std::nothrow_t &) noexcept
{
    ++g_allocations;
    return g_no_memory ? nullptr : aligned_alloc(static_cast<size_t>(align), size);
}
[[gnu::noinline]] void operator delete(void *p) noexcept
{
    free(p);
}
[[gnu::noinline]] void operator delete(void *p, size_t) noexcept
{
    free(p);
}
[[gnu::noinline]] void operator delete(void *p, std::align_val_t) noexcept
{
    free(p);
}
[[gnu::noinline]] void operator delete(void *p, size_t, std::align_val_t) noexcept
{
    free(p);
}

TEST(road, an_ordinary_packet_allocates_nothing_and_reads_no_clock)
{
    engine e;
    one_program(&e.c);
    for (uint64_t i = 0; i < 2000; ++i) {
        const uint64_t t = 900000 + i * 3600;
        e.c.pes(0x101, {.pts = t + 9000, .dts = t, .pcr = t});
        e.c.payload(0x101, 40);
        e.c.pes(0x102, {.pts = t + 9000});
        e.c.payload(0x102, 5);
        e.c.null(2);
        one_program(&e.c);
    }
    tsan_process(e.t, e.c.at(0));
    tsan_process(e.t, e.c.at(1));
    tsan_process(e.t, e.c.at(2)); // every stream of a programme is known, the first PCR taken
    e.fed = 3;
    g_allocations = 0;
    g_clock_reads = 0;
    for (; e.fed < e.c.count(); ++e.fed)
        if (const uint8_t *pkt = e.c.at(e.fed); tsan_process(e.t, pkt) != 0)
            FAIL() << e.fed;
    // The first repetition of each table is printed and compared; all the others are known.
    EXPECT_LT(g_allocations, 20u);
    EXPECT_EQ(g_clock_reads, 0u);
    EXPECT_EQ(e.app.take() + e.access.take(), "");
    EXPECT_GT(e.t->atotal, 90000u);
    EXPECT_EQ(e.t->pg[0].av_pdts_delta.count, 2000u);
}

TEST(road, a_pid_means_its_first_pmt_slot_then_the_first_stream)
{
    engine e;
    e.c.pat({{1, 0x100}, {2, 0x200}, {3, 0x100}});
    e.c.pmt(0x200, {.pcr_pid = 0x201, .streams = {{0x1b, 0x201}, {0x0f, 0x300}, {0x03, 0x100}}});
    e.c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x0f, 0x300}, {0x1b, 0x101}, {0x04, 0x300}}});
    const struct {
        unsigned pid;
        ssize_t ipg, istm;
        bool is_pat, is_pmt;
    } cases[] = {
        {0, -1, -1, true, false},       {0x100, 0, -1, false, true}, {0x200, 1, -1, false, true},
        {0x300, 0, 0, false, false},    {0x101, 0, 1, false, false}, {0x201, 1, 0, false, false},
        {0x1fff, -1, -1, false, false},
    };
    for (const auto &want : cases) {
        if (want.is_pat)
            e.c.pat({{1, 0x100}, {2, 0x200}, {3, 0x100}});
        else
            e.c.packet(want.pid, {.has_payload = false});
        e.feed();
        const dgram_info &dat = *e.t->dat;
        EXPECT_EQ(dat.ipg, want.ipg) << want.pid;
        EXPECT_EQ(dat.istm, want.istm) << want.pid;
        EXPECT_EQ(dat.is_pat, want.is_pat) << want.pid;
        EXPECT_EQ(dat.is_pmt, want.is_pmt) << want.pid;
    }
}

TEST(road, a_run_stops_out_of_sync_and_on_an_idle_source)
{
    tsan_config cfg = every_check();
    cfg.max_skip_pkts = 3;
    {
        engine e(cfg);
        g_test_now = {5000, 0};
        e.c.null(4);
        EXPECT_EQ(e.feed(), -16);
        EXPECT_EQ(tsan_get_pidx(e.t), 3u);
        EXPECT_EQ(e.log(), "(ERR)  [src] has been idling for too long (3/3 packets)\n"); // once
        g_test_now = {5011, 0};
        e.c.null();
        EXPECT_EQ(e.log(), "(ERR)  [src] has been idling for too long (5/3 packets)\n");
        tsan_set_pidx(e.t, 77);
        EXPECT_EQ(e.log(), "(WRN)  [src] packet index changed from 5 to 77\n");
    }
    engine e(cfg);
    e.c.null();
    e.c.last(0) = 0x48;
    EXPECT_EQ(e.feed(), -1);
    EXPECT_EQ(e.log(), "(ERR)  tsan_process: [src] out of sync at pkt[1]\n");
}

TEST(road, a_disabled_analyzer_counts_and_follows_tables)
{
    tsan_config cfg = every_check();
    cfg.is_enabled = false;
    engine e(cfg);
    one_program(&e.c);
    e.c.payload(0x101, 2);
    e.c.repeat_cc(0x101);
    e.c.payload(0x101);
    e.c.pmt(0x100, {.pcr_pid = 0x101, .version = 1, .streams = {{0x1b, 0x101}}});
    EXPECT_THAT(e.log(), HasSubstr("(WRN)  ALERT PMT-DIFF [src] track-count: 3/1 pid=256 "
                                   "pcr-pid=257 at 0:M[6]\n"));
    EXPECT_EQ(e.t->pg[0].alert.cc_break, 0u);
    EXPECT_EQ(e.t->pg[0].stat.v_acount, 3u);
}

TEST(road, a_context_is_made_and_freed_whatever_happens)
{
    tsan_config cfg = every_check();
    int err = 7;
    g_no_memory = true;
    const tsan_t none = tsan_init("x", &cfg, &err);
    g_no_memory = false;
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(err, ENOMEM);
    tsan_free(nullptr);

    engine e;
    const tsan_t nameless = tsan_init("", &cfg, nullptr); // taken for freed already
    tsan_free(nameless);
    EXPECT_THAT(e.log(), HasSubstr("(WRN)  tsan_free: avoiding double-freeing of tsan[] (0x"));
    nameless->cfg.source[0] = 'x';
    tsan_free(nameless);
}
