// Micro-benchmarks: the engine fed from memory, by kind of packet; the logger; texts of a line.
//
//     engine_bench [OPTIONS]          OPTIONS of Google Benchmark
//     engine_bench --kinds            names the kinds of packet
//     engine_bench --feed KIND COUNT  feeds COUNT batches and ends, for an instruction counter

#include "batches.h"
#include "misc/mstime.h"
#include "tsanalyze/context.h"
#include "tsanalyze/pids.h"
#include "tsanalyze/pmt.h"
#include "tsanalyze/tag.h"

#include <benchmark/benchmark.h>
#include <libtarnlink/log.h>
#include <libtarnlink/timeop.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

loglevel_ctx g_llctx;

// ---- The engine, fed from memory

struct free_context {
    void operator()(tsan_t th) const { tsan_free(th); }
};

typedef std::unique_ptr<tsan_ctx, free_context> context;

tsan_config every_check()
{
    tsan_config cfg;
    tsan_default_config(&cfg);
    cfg.max_pcr_delta = 500;
    return cfg;
}

void fill_tables(tsan_ctx *tc)
{
    tc->nprogs = MAX_PMTS;
    for (uint32_t p = 0; p < MAX_PMTS; ++p)
        tc->pmt_pid[p] = PMT_PID + p;
    rebuild_pid_slots(tc);
    for (uint32_t p = 0; p < MAX_PMTS; ++p) {
        const uint32_t first = VIDEO_PID + p * MAX_NSTREAMS;
        tc->pg[p].pcr_pid = first;
        tc->dat = &tc->pg[p].dat_pmt;
        for (uint32_t s = 0; s < MAX_NSTREAMS; ++s)
            add_stream(tc, first + s, s == 0 ? 0x1b : s < MAX_NSTREAMS / 2 ? 0x0f : 0x06);
    }
    rebuild_pid_slots(tc);
}

void feed_all(tsan_t th, const std::vector<uint8_t> &packets)
{
    for (size_t at = 0; at < packets.size(); at += TS_PACKET_SIZE)
        if (tsan_process(th, packets.data() + at) != 0)
            abort();
}

context begin_feed(const packet_kind &kind, const packet_batch &batch)
{
    const tsan_config cfg = every_check();
    context th(tsan_init(nullptr, &cfg, nullptr));
    if (kind.full_tables)
        fill_tables(th.get());
    feed_all(th.get(), batch.start);
    return th;
}

void bench_packets(benchmark::State &state, const packet_kind &kind)
{
    packet_batch batch = make_batch(kind);
    const context th = begin_feed(kind, batch);
    for ([[maybe_unused]] auto _ : state) {
        feed_all(th.get(), batch.packets);
        if (batch.cc_step == 0)
            continue;
        state.PauseTiming();
        advance_counters(&batch);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(BATCH));
}

// ---- The logger

struct close_file {
    void operator()(FILE *fp) const { fclose(fp); }
};

// The null device as a log has its stream: unbuffered.
std::unique_ptr<FILE, close_file> open_null()
{
    std::unique_ptr<FILE, close_file> fp(fopen("/dev/null", "w"));
    setvbuf(fp.get(), nullptr, _IONBF, 0);
    return fp;
}

constexpr char SOURCE[] = "capture.ts";
constexpr char TAG[] = "0:0[123456]:(pcr=8100000)+12";

void bench_filtered(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        LOG_STMT(DEBUG_level, "[%s] pid=%u at %s\n", SOURCE, VIDEO_PID, TAG);
        benchmark::ClobberMemory();
    }
}

void bench_written(benchmark::State &state)
{
    const auto null = open_null();
    log_default(&g_log, null.get());
    for ([[maybe_unused]] auto _ : state)
        LOG_STMT(WARN_level, "ALERT CC-BRK [%s] dgram:%lu last/current=%d/%d pid=%u at %s\n",
                 SOURCE, 0ul, 5, 5, VIDEO_PID, TAG);
    log_default(&g_log, nullptr);
}

void bench_access(benchmark::State &state)
{
    const auto null = open_null();
    log_default(&g_access_log, null.get());
    log_set_pid(&g_access_log, getpid());
    for ([[maybe_unused]] auto _ : state)
        log_access("ALERT CC-BRK %s %u %lu %d %d %s\n", SOURCE, VIDEO_PID, 0ul, 5, 5, TAG);
    log_default(&g_access_log, nullptr);
}

// ---- Texts

void bench_tag(benchmark::State &state)
{
    packet_tag tag{.pkt_idx = 123456,
                   .last_pcr = 8100000,
                   .pcr_age = 12,
                   .ipg = 0,
                   .istm = 0,
                   .is_pat = false,
                   .is_pmt = false,
                   .has_pcr = true};
    for ([[maybe_unused]] auto _ : state) {
        ++tag.pkt_idx;
        benchmark::DoNotOptimize(tag_text(tag));
    }
}

void bench_stamp(benchmark::State &state)
{
    char text[TIMESTR_SZ];
    for ([[maybe_unused]] auto _ : state) {
        timespec now{};
        set_real_now(&now);
        mk_timestr(&now, 0, text, sizeof text);
        benchmark::DoNotOptimize(text);
    }
}

void bench_clock_text(benchmark::State &state)
{
    uint64_t ticks = 8100000;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(ticks_timestr(ticks += 3600));
}

BENCHMARK(bench_filtered)->Name("log/filtered_out");
BENCHMARK(bench_written)->Name("log/application_line");
BENCHMARK(bench_access)->Name("log/access_line");
BENCHMARK(bench_tag)->Name("text/packet_tag");
BENCHMARK(bench_stamp)->Name("text/time_stamp");
BENCHMARK(bench_clock_text)->Name("text/clock_of_ticks");

// ---- Command line

int feed_only(const char *name, uint64_t count)
{
    for (const packet_kind &kind : packet_kinds()) {
        if (strcmp(kind.name, name) != 0)
            continue;
        packet_batch batch = make_batch(kind);
        const context th = begin_feed(kind, batch);
        for (uint64_t i = 0; i < count; ++i) {
            feed_all(th.get(), batch.packets);
            advance_counters(&batch);
        }
        return 0;
    }
    fprintf(stderr, "unknown kind of packet: %s\n", name);
    return 2;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc == 2 && strcmp(argv[1], "--kinds") == 0) {
        for (const packet_kind &kind : packet_kinds())
            puts(kind.name);
        return 0;
    }
    if (argc == 4 && strcmp(argv[1], "--feed") == 0)
        return feed_only(argv[2], strtoull(argv[3], nullptr, 10));
    for (const packet_kind &kind : packet_kinds())
        benchmark::RegisterBenchmark((std::string("packet/") + kind.name).c_str(), bench_packets,
                                     kind);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
