// Packets, and what a live host does between them, through one context of the engine.

#include "fuzz.h"
#include "packet_input.h"

#include <libtarnlink/invariant.h>

#include <cmath>
#include <string_view>

namespace {

// What the fuzzer takes for coverage: how many bytes of log an input makes for each of its bytes,
// in steps of a sixteenth of a doubling. So it looks for the input that makes most.
__attribute__((section("__libfuzzer_extra_counters"))) uint8_t g_amplification[256];

// A larger factor is a finding.
constexpr double MOST_AMPLIFIED = 100;

struct log_volume {
    size_t packets = 0, written = 0; // bytes while packets were processed
};

void note_amplification(const log_volume &v)
{
    static double most;
    const double factor = double(v.written) / double(v.packets * TS_PACKET_SIZE);
    g_amplification[std::min(size_t(16 * std::log2(1 + factor)), sizeof g_amplification - 1)] = 1;
    if (most == 0)
        atexit([] { fprintf(stderr, "stat::most_log_per_byte: %18.1f\n", most); });
    most = std::max({most, factor, 0.01});
    expect(factor <= MOST_AMPLIFIED);
}

// Thrown where an invariant that a source may break would have ended the process.
struct intended_end {};

struct free_context {
    void operator()(tsan_t t) const { tsan_free(t); }
};

// Reports look at every PID: a few of them in an input find what more would.
constexpr unsigned MOST_REPORTS = 2;

void report(tsan_t t)
{
    tsan_check_ndat(t);
    tsan_dump_stats(null_stream(), t);
    tsan_alog_stats(t);
}

void act(tsan_t t, unsigned number, unsigned *reports)
{
    switch (number % 5) {
    case 0:
        return tsan_next_seg(t);
    case 1:
        tsan_alert_lostsync(t);
        return;
    case 2:
        return ++*reports <= MOST_REPORTS ? report(t) : tsan_check_ndat(t);
    case 3:
        tsan_check_dump_stats(null_stream(), t);
        return tsan_reset_local_stats(t);
    default:
        return tsan_set_pidx(t, tsan_get_pidx(t) * 3);
    }
}

void process(tsan_t t, const uint8_t *pkt, log_volume *volume)
{
    const size_t before = g_swallowed;
    tsan_process(t, pkt);
    fflush(null_stream());
    ++volume->packets;
    volume->written += g_swallowed - before;
}

void run(tsan_t t, std::span<const uint8_t> in, bool seals, log_volume *volume)
{
    unsigned reports = 0;
    while (const auto step = take_step(&in)) {
        if (step->pkt == nullptr) {
            act(t, step->act, &reports);
            fflush(null_stream());
            continue;
        }
        if (seals)
            seal_section(step->pkt.get());
        process(t, step->pkt->data(), volume);
    }
}

} // namespace

// Takes the place of the library's: what a source is meant to end the process with is no finding.
void invariant_failed(const char *expression, const char *file, const char *function)
{
    constexpr std::string_view intended[] = {
        "tc->pmt_pid[tc->nprogs]", // a PAT lists PID 0
        "tc->nprogs",              // the first PAT lists no programme
        "prog(tc)->pcr_pid",       // a PMT names PCR PID 0
        "tc->nprogs < MAX_PMTS",   // 32 programmes or more after a change
    };
    if (std::find(std::begin(intended), std::end(intended), expression) != std::end(intended))
        throw intended_end();
    fprintf(stderr, "%s: %s: invariant `%s' broken\n", file, function, expression);
    abort();
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < SETTINGS_LEN)
        return 0;
    const std::span<const uint8_t> in(data, size);
    // Traces cost more than all the rest together; one input in two goes without.
    swallow_logs(settings_bit(in, 6) ? DEBUG_level : NORM_level);
    if (settings_bit(in, 5)) // a host's log may have no stream
        log_default(&g_log, nullptr);
    const tsan_config cfg = settings_of(in);
    const std::unique_ptr<tsan_ctx, free_context> t(tsan_init(nullptr, &cfg, nullptr));
    log_volume volume;
    try {
        run(t.get(), in.subspan(SETTINGS_LEN), cfg.iso_rules, &volume);
        report(t.get());
    } catch (const intended_end &) {
        if (cfg.iso_rules) // nothing in a capture ends the process then
            abort();
    }
    if (volume.packets > 0 && !settings_bit(in, 6)) // without traces
        note_amplification(volume);
    return 0;
}
