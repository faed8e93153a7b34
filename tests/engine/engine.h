// An engine under test: its logs are kept as text without time stamps, its clock is set by hand.
#pragma once

#include "support/capture.h"
#include "support/logging.h"
#include "tsanalyze/context.h"

#include <cstring>

inline tsan_config every_check()
{
    tsan_config cfg{};
    cfg.is_enabled = cfg.access_log_alerts = cfg.cc_track = true;
    strcpy(cfg.source, "src");
    cfg.max_skip_pkts = 5000;
    cfg.max_pdts_delta = cfg.max_pcr_delta = 500;
    cfg.pcr_freq_ms = 40;
    cfg.dump_stats_period = 5;
    cfg.cc_max_ms0_ms = 30;
    return cfg;
}

struct engine {
    explicit engine(const tsan_config &cfg = every_check(), int level = NORM_level)
    {
        log_set_modules(&g_log, level);
        t = tsan_init(nullptr, &cfg, nullptr);
    }
    ~engine() { tsan_free(t); }
    engine(engine &&) = delete;

    // Takes the packets that were added to `c` since the last call; returns the last status.
    int feed()
    {
        int rc = 0;
        for (; fed < c.count() && rc == 0; ++fed)
            rc = tsan_process(t, c.at(fed));
        return rc;
    }
    std::string log() { return feed(), app.take(); }
    std::string alerts() { return feed(), access.take(); }

    inline static time_t start = 0; // limits of the whole process are due again at each
    test_clock clock{start += 10000};
    log_text app{&g_log}, access{&g_access_log};
    tsan_t t = nullptr;
    capture_builder c;
    size_t fed = 0;
};

// A PAT with one programme and its PMT: video and PCR on 0x101, audio on 0x102, data on 0x103.
inline void one_program(capture_builder *c)
{
    c->pat({{1, 0x100}});
    c->pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x1b, 0x101}, {0x0f, 0x102}, {0x06, 0x103}}});
}
