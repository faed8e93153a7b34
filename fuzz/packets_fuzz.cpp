// Packets, and what a live host does between them, through one context of the engine.
//
// The input begins with the settings (two bytes of switches, five of thresholds) and goes on with
// records. A record's first byte, up to MAX_CONTENT, is the number of bytes that follow of a packet
// behind its sync byte; the rest of the packet is filling. Larger numbers are acts of a host.

#include "fuzz_logs.h"
#include "tsanalyze/tsanalyze.h"

#include <libtarnlink/invariant.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>

namespace {

constexpr unsigned MAX_CONTENT = TS_PACKET_SIZE - 1;
constexpr size_t SETTINGS_LEN = 7;

// Thrown where an invariant that a source may break would have ended the process.
struct intended_end {};

struct free_context {
    void operator()(tsan_t t) const { tsan_free(t); }
};

tsan_config settings_of(std::span<const uint8_t> in)
{
    const auto bit = [in](unsigned n) { return (in[n / 8] >> n % 8 & 1) != 0; };
    tsan_config cfg{};
    cfg.is_enabled = !bit(0); // an input of zeros has everything on
    cfg.cc_track = !bit(1);
    cfg.access_log_alerts = !bit(2);
    cfg.no_rlog = bit(3);
    cfg.trk = {!bit(8), !bit(9), !bit(10), !bit(11), !bit(12), !bit(13), !bit(14), !bit(15)};
    cfg.max_skip_pkts = bit(4) ? 4 : 100000;
    cfg.max_pdts_delta = in[2];
    cfg.max_pcr_delta = in[3];
    cfg.pcr_freq_ms = in[4];
    cfg.max_ndat_pcount = in[5];
    cfg.cc_max_ms0_ms = in[6];
    cfg.dump_stats_period = 1;
    memcpy(cfg.source, "fuzz", sizeof "fuzz");
    return cfg;
}

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

// Takes one packet from memory of its own, so that a read outside of it is noticed.
void feed(tsan_t t, std::span<const uint8_t> content, bool damaged)
{
    const auto pkt = std::make_unique<std::array<uint8_t, TS_PACKET_SIZE>>();
    pkt->fill(0xff);
    pkt->front() = damaged ? 0x46 : 0x47;
    std::copy(content.begin(), content.end(), pkt->begin() + 1);
    tsan_process(t, pkt->data());
}

void run(tsan_t t, std::span<const uint8_t> in)
{
    while (!in.empty()) {
        const unsigned kind = in[0];
        in = in.subspan(1);
        if (kind > MAX_CONTENT + 1) {
            act(t, kind);
            continue;
        }
        const size_t len = std::min<size_t>(std::min(kind, MAX_CONTENT), in.size());
        feed(t, in.first(len), kind > MAX_CONTENT);
        in = in.subspan(len);
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
    swallow_logs();
    if ((in[0] & 0x20) != 0) // a host's log may have no stream
        log_default(&g_log, nullptr);
    const tsan_config cfg = settings_of(in);
    const std::unique_ptr<tsan_ctx, free_context> t(tsan_init(nullptr, &cfg, nullptr));
    try {
        run(t.get(), in.subspan(SETTINGS_LEN));
    } catch (const intended_end &) {
    }
    return 0;
}
