// Words of the command line and of settings files: option words of the analyzer, trace switches,
// names of levels and of syslog facilities. What is refused leaves everything as it was.

#include "common/appcfg.h"
#include "fuzz.h"
#include "tsanalyze/tsanalyze.h"

#include <cstring>
#include <string>
#include <string_view>

namespace {

// Settings of which every byte is told, so that two can be compared.
struct plain_settings {
    plain_settings() { memset(&cfg, 0, sizeof cfg); }
    bool operator==(const plain_settings &other) const
    {
        return memcmp(&cfg, &other.cfg, sizeof cfg) == 0;
    }
    tsan_config cfg;
};

void try_option(const char *word)
{
    plain_settings after;
    const plain_settings before;
    const int rc = tsan_cli_opt(word, &after.cfg);
    expect(rc == 0 || (rc == 22 && after == before));
    const tsan_config &cfg = after.cfg;
    for (const size_t number : {cfg.max_skip_pkts, cfg.max_pdts_delta, cfg.max_pcr_delta,
                                cfg.pcr_freq_ms, static_cast<size_t>(cfg.cc_max_ms0_ms)})
        expect(static_cast<int64_t>(number) >= 0);
    tsan_dump_config(null_stream(), word, &cfg);
}

void try_switches(const char *words)
{
    plain_settings all;
    plain_settings some;
    expect(tsan_xtrack_opt("sdt_i,misc_i,pdts_u,pat_pmt,pcr_u,cc_t,pmt_d,pat_d", &all.cfg) == 0);
    expect(tsan_xtrack_opt(words, &some.cfg) == 0);
    some.cfg.trk = all.cfg.trk; // nothing else was touched
    expect(some == all);
}

void try_names(const char *name)
{
    int level = 99;
    const int rc = match_log_level(name, &level);
    expect(rc == 0 ? level != 99 && log_level_str(level) != std::string_view("??") : level == 99);
    str2fac(name);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // In memory of its own size, so that a read past the text's end is noticed.
    const std::string text(data, data + size);
    swallow_logs();
    try_option(text.c_str());
    try_switches(text.c_str());
    try_names(text.c_str());
    return 0;
}
