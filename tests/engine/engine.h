// An engine under test: its logs are kept as text without time stamps, its clocks are set by hand.
#pragma once

#include "support/capture.h"
#include "tsanalyze/context.h"

#include <libtarnlink/log.h>

#include <cstdlib>
#include <string>

inline timespec g_test_now; // what every clock says
inline unsigned g_clock_reads;

inline int test_clock(clockid_t, timespec *tms)
{
    ++g_clock_reads;
    *tms = g_test_now;
    return 0;
}

// A log on a text in memory.
class log_text {
public:
    explicit log_text(log_ctx *log) : m_log(log)
    {
        log_default(log, open_memstream(&m_text, &m_size));
        log_timefmt(log, f_NO_TIME);
    }
    ~log_text()
    {
        fclose(m_log->fp);
        *m_log = {};
        free(m_text);
    }
    log_text(const log_text &) = delete;
    log_text &operator=(const log_text &) = delete;

    // What was written since the last call.
    std::string take()
    {
        fflush(m_log->fp);
        const std::string text(m_text + m_taken, m_size - m_taken);
        m_taken = m_size;
        return text;
    }

private:
    log_ctx *m_log;
    char *m_text = nullptr;
    size_t m_size = 0;
    size_t m_taken = 0;
};

inline tsan_config every_check()
{
    tsan_config cfg{};
    cfg.is_enabled = true;
    snprintf(cfg.source, sizeof cfg.source, "src");
    cfg.max_skip_pkts = 5000;
    cfg.max_pdts_delta = 500;
    cfg.max_pcr_delta = 500;
    cfg.pcr_freq_ms = 40;
    cfg.access_log_alerts = true;
    cfg.cc_track = true;
    cfg.cc_max_ms0_ms = 30;
    return cfg;
}

struct engine {
    explicit engine(const tsan_config &cfg = every_check(), int level = NORM_level)
    {
        g_test_now = {1000, 0};
        set_clock_reader(test_clock);
        log_set_modules(&g_log, level);
        t = tsan_init(nullptr, &cfg, nullptr);
    }
    ~engine()
    {
        tsan_free(t);
        set_clock_reader(nullptr);
        log_set_modules(&g_log, NORM_level);
    }
    engine(const engine &) = delete;
    engine &operator=(const engine &) = delete;

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

    log_text app{&g_log};
    log_text access{&g_access_log};
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
