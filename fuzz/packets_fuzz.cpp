// Packets, and what a live host does between them, through one context of the engine.

#include "fuzz.h"
#include "packet_input.h"

#include <libtarnlink/invariant.h>

#include <string_view>

namespace {

// Thrown where an invariant that a source may break would have ended the process.
struct intended_end {};

struct free_context {
    void operator()(tsan_t t) const { tsan_free(t); }
};

void act(tsan_t t, unsigned number)
{
    switch (number % 5) {
    case 0:
        return tsan_next_seg(t);
    case 1:
        tsan_alert_lostsync(t);
        return;
    case 2:
        tsan_check_ndat(t);
        tsan_dump_stats(null_stream(), t);
        return tsan_alog_stats(t);
    case 3:
        tsan_check_dump_stats(null_stream(), t);
        return tsan_reset_local_stats(t);
    default:
        return tsan_set_pidx(t, tsan_get_pidx(t) * 3);
    }
}

void run(tsan_t t, std::span<const uint8_t> in)
{
    while (const auto step = take_step(&in)) {
        if (step->pkt != nullptr)
            tsan_process(t, step->pkt->data());
        else
            act(t, step->act);
    }
    act(t, 2);
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
    try {
        run(t.get(), in.subspan(SETTINGS_LEN));
    } catch (const intended_end &) {
    }
    return 0;
}
