// Settings: a settings file's group, the words of -A and -k, and the dump.

#include "tsanalyze/tsanalyze.h"

#include <libtarnlink/config.h>
#include <libtarnlink/log.h>
#include <libtarnlink/strops.h>

#include <cstdlib>
#include <cstring>
#include <libconfig.h>
#include <memory>
#include <strings.h>

namespace {

loglevel_ctx g_llctx;

constexpr size_t SOURCE_ROOM = MAX_STAG_LEN - 1; // of a settings file's source tag

struct free_text {
    void operator()(char *text) const { free(text); }
};

// A boolean; false when the key is absent or something else.
bool lookup_bool(const config_setting_t *s, const char *key)
{
    int value = 0;
    return config_setting_lookup_bool(s, key, &value) == CONFIG_TRUE && value != 0;
}

int load_sizes(const config_setting_t *s, tsan_config *cfg)
{
    const struct {
        const char *key;
        size_t *out;
        size_t default_size;
    } sizes[] = {
        {"max_skipped_pkts", &cfg->max_skip_pkts, D_MAX_NO_ANALYZE},
        {"max_pdts_delta_ms", &cfg->max_pdts_delta, D_MAX_DELTA_MS},
        {"max_pcr_delta_ms", &cfg->max_pcr_delta, 0},
        {"pcr_freq_ms", &cfg->pcr_freq_ms, 0},
        {"dump_stats_period", &cfg->dump_stats_period, 0},
        {"max_ndat_pcount", &cfg->max_ndat_pcount, D_PCOUNT},
    };
    for (const auto &size : sizes)
        if (const int rc = load_config_setting_size(s, size.key, size.out, size.default_size);
            rc != 0)
            return rc;
    return 0;
}

void load_cc(const config_setting_t *cc, tsan_config *cfg)
{
    cfg->cc_track = lookup_bool(cc, "track");
    int seconds = 0;
    config_setting_lookup_int(cc, "max_zreset_time", &seconds);
    // Milliseconds wrap in 32 bits.
    cfg->cc_max_ms0_ms = static_cast<int32_t>(static_cast<uint32_t>(seconds) * 1000u);
}

void load_tracking(const config_setting_t *s, tracking_opt *trk)
{
    trk->sdt_ignore = lookup_bool(s, "sdt_ignore");
    trk->misc_ignore = lookup_bool(s, "misc_ignore");
    trk->pdts_update = lookup_bool(s, "pdts_update");
    trk->pat_pmt_pkt = lookup_bool(s, "pat_pmt_pkt");
    trk->pcr_update = lookup_bool(s, "pcr_update");
    trk->cc_track = lookup_bool(s, "cc");
    trk->pmt_diff = lookup_bool(s, "pmt_diff");
    trk->pat_diff = lookup_bool(s, "pat_diff");
}

// Sets the setting of that name; an unknown name is let pass.
void set_by_name(const char *name, int64_t value, tsan_config *cfg)
{
    const size_t size = static_cast<size_t>(value);
    if (strcmp(name, "skipped_pkts") == 0)
        cfg->max_skip_pkts = size;
    else if (strcmp(name, "pdts_delta") == 0)
        cfg->max_pdts_delta = size;
    else if (strcmp(name, "pcr_delta") == 0)
        cfg->max_pcr_delta = size;
    else if (strcmp(name, "pcr_freq") == 0)
        cfg->pcr_freq_ms = size;
    else if (strcmp(name, "max_zreset_time") == 0)
        cfg->cc_max_ms0_ms = value; // milliseconds here, seconds in a settings file
    else if (strcmp(name, "cc_track") == 0)
        cfg->cc_track = value > 0;
    else if (strcmp(name, "iso") == 0)
        cfg->iso_rules = value > 0;
}

const char *yes_no(bool flag) { return flag ? "yes" : "no"; }

void dump_thresholds(FILE *stream, const tsan_config *cfg)
{
    if (cfg->max_pdts_delta != 0)
        fprintf(stream, "\tPTS/DTS delta:         %zu (ms)\n", cfg->max_pdts_delta);
    if (cfg->max_pcr_delta != 0)
        fprintf(stream, "\tPCR delta:             %zu (ms)\n", cfg->max_pcr_delta);
    if (cfg->pcr_freq_ms != 0)
        fprintf(stream, "\tPCR frequency:         %zu (ms)\n", cfg->pcr_freq_ms);
    if (cfg->dump_stats_period != 0)
        fprintf(stream, "\tdump stats every:      %zu (sec)\n", cfg->dump_stats_period);
    fprintf(stream, "\tvalidate CC sequence:  %s\n", yes_no(cfg->cc_track));
    if (cfg->cc_track && cfg->cc_max_ms0_ms != 0)
        fprintf(stream, "\tCC reset threshold:    %ld (ms)\n", cfg->cc_max_ms0_ms);
}

void dump_tracking(FILE *stream, const tracking_opt *trk)
{
    fprintf(stream, "\tT:sdt_ignore:          %s\n", yes_no(trk->sdt_ignore));
    fprintf(stream, "\tT:misc_ignore:         %s\n", yes_no(trk->misc_ignore));
    fprintf(stream, "\tT:pdts_update:         %s\n", yes_no(trk->pdts_update));
    fprintf(stream, "\tT:pat_pmt_pkt:         %s\n", yes_no(trk->pat_pmt_pkt));
    fprintf(stream, "\tT:pcr_update:          %s\n", yes_no(trk->pcr_update));
    fprintf(stream, "\tT:cc_track:            %s\n", yes_no(trk->cc_track));
    fprintf(stream, "\tT:pmt_diff:            %s\n", yes_no(trk->pmt_diff));
    fprintf(stream, "\tT:pat_diff:            %s\n", yes_no(trk->pat_diff));
}

} // namespace

// ---- The settings file

void tsan_default_config(tsan_config *cfg)
{
    *cfg = {};
    cfg->is_enabled = true;
    copy_text(cfg->source, sizeof cfg->source, "TS"); // one without a tag would never be freed
    cfg->max_skip_pkts = D_MAX_NO_ANALYZE;
    cfg->max_pdts_delta = D_MAX_DELTA_MS;
    cfg->max_pcr_delta = 1000;
    cfg->pcr_freq_ms = 100;
    cfg->dump_stats_period = 60;
    cfg->max_ndat_pcount = D_PCOUNT;
    cfg->cc_track = true;
    cfg->cc_max_ms0_ms = 30;
}

int tsan_load_config(config_setting_t *section, tsan_config *cfg)
{
    cfg->is_enabled = lookup_bool(section, "enabled");
    if (!cfg->is_enabled) {
        LOG_STMT(DEBUG_level, "%s: TSAN disabled, skipping further settings\n", __func__);
        return 0;
    }
    cfg->access_log_alerts = lookup_bool(section, "access_log_alerts");
    cfg->iso_rules = lookup_bool(section, "iso_rules");
    int rc = load_config_setting_str(section, "source_tag", cfg->source, SOURCE_ROOM, nullptr);
    if (rc == 0)
        rc = load_sizes(section, cfg);
    if (rc != 0) {
        LOG_STMT(ERR_level, "%s: failed to load config, rc=%d\n", __func__, rc);
        return rc;
    }
    config_setting_t *cc = config_setting_get_member(section, "cc");
    if (cc != nullptr && config_setting_is_group(cc) == CONFIG_TRUE)
        load_cc(cc, cfg);
    // "track" only switches the reading on: the switches stand beside it, not inside.
    if (config_setting_get_member(section, "track") != nullptr)
        load_tracking(section, &cfg->trk);
    return 0;
}

// ---- The command line

int tsan_cli_opt(const char *optstr, tsan_config *cfg)
{
    const std::unique_ptr<char, free_text> copy(strdup(optstr));
    if (copy == nullptr) {
        LOG_STMT(ERR_level, "%s: strdup() ERROR(%d): %s\n", __func__, TSAN_NO_MEMORY,
                 strerror(TSAN_NO_MEMORY));
        return TSAN_NO_MEMORY;
    }
    char *name = copy.get();
    int64_t number = 0;
    if (strcasecmp(name, "on") == 0 || strcasecmp(name, "enable") == 0) {
        cfg->is_enabled = true;
    } else if (strcasecmp(name, "off") == 0 || strcasecmp(name, "disable") == 0) {
        cfg->is_enabled = false;
    } else {
        char *value = strchr(name, '=');
        if (value == nullptr) {
            LOG_STMT(ERR_level, "%s: invalid option string format: %s\n", __func__, name);
            return TSAN_BAD_SETTING;
        }
        *value++ = '\0';
        number = strtol(value, nullptr, 10);
        if (number < 0) {
            LOG_STMT(ERR_level, "%s: invalid parameter value: %s/%ld\n", __func__, value, number);
            return TSAN_BAD_SETTING;
        }
        set_by_name(name, number, cfg);
    }
    LOG_STMT(DEBUG_level, "%s: %s=%ld OK\n", __func__, name, number);
    return TSAN_OK;
}

int tsan_xtrack_opt(const char *optstr, tsan_config *cfg)
{
    tracking_opt &trk = cfg->trk;
    const bool all = strcasecmp(optstr, "all") == 0;
    trk.sdt_ignore = trk.misc_ignore = trk.pdts_update = trk.pat_pmt_pkt = trk.pcr_update = all;
    if (all)
        return TSAN_OK;
    const struct {
        const char *word;
        bool *flag;
    } words[] = {
        {"sdt_i", &trk.sdt_ignore},    {"pdts_u", &trk.pdts_update}, {"pcr_u", &trk.pcr_update},
        {"pat_pmt", &trk.pat_pmt_pkt}, {"misc_i", &trk.misc_ignore}, {"cc_t", &trk.cc_track},
        {"pmt_d", &trk.pmt_diff},      {"pat_d", &trk.pat_diff},
    };
    for (const auto &w : words)
        if (strstr(optstr, w.word) != nullptr)
            *w.flag = true;
    return TSAN_OK;
}

// ---- The dump

void tsan_dump_config(FILE *stream, const char *title, const tsan_config *cfg)
{
    fprintf(stream, "%s: %s\n", title, cfg->is_enabled ? "" : "disabled");
    if (!cfg->is_enabled)
        return;
    fprintf(stream, "\tsource:                [%s]\n", cfg->source);
    fprintf(stream, "\tskipped packets:       %zu\n", cfg->max_skip_pkts);
    fprintf(stream, "\tNDAT p-count:          %zu\n", cfg->max_ndat_pcount);
    dump_thresholds(stream, cfg);
    dump_tracking(stream, &cfg->trk);
    fprintf(stream, "\taccess-log-alerts:     %s\n", cfg->access_log_alerts ? "YES" : "no");
    fprintf(stream, "\twrite-to-log:          %s\n", cfg->no_rlog ? "NO" : "yes");
    if (cfg->iso_rules)
        fprintf(stream, "\tISO/IEC 13818-1 rules: yes\n");
}
