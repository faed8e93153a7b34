#include "orvane/tsa/settings_file.h"

#include "tsanalyze/tsanalyze.h"

#include <libtarnlink/log.h>

#include <cstdio>
#include <libconfig.h>
#include <memory>

namespace {

loglevel_ctx g_llctx;

constexpr char SECTION[] = "orv.stream_analyzer";

struct close_file {
    void operator()(FILE *fp) const { fclose(fp); }
};

// The process's settings document; it holds something only during a load.
config_t g_libcfg;

struct settings_document {
    settings_document() { config_init(&g_libcfg); }
    ~settings_document() { config_destroy(&g_libcfg); }
    settings_document(const settings_document &) = delete;
    settings_document &operator=(const settings_document &) = delete;
};

int read_settings(const char *fpath, FILE *fp, tsan_config *cfg)
{
    if (config_read(&g_libcfg, fp) != CONFIG_TRUE) {
        LOG_STMT(ERR_level, "Error reading/parsing config file [%s]: line %d: %s\n", fpath,
                 config_error_line(&g_libcfg), config_error_text(&g_libcfg));
        return -1;
    }
    config_setting_t *section = config_lookup(&g_libcfg, SECTION);
    if (section == nullptr) {
        LOG_STMT(ERR_level, "%s: missing %s section\n", "load_config", SECTION);
        return -1;
    }
    return tsan_load_config(section, cfg);
}

} // namespace

int load_config(const char *fpath, tsan_config *cfg)
{
    const settings_document document;
    const std::unique_ptr<FILE, close_file> fp(fopen(fpath, "r"));
    if (fp == nullptr) {
        fprintf(stderr, "Failed to load [%s]\n", fpath);
        return -1;
    }
    const int rc = read_settings(fpath, fp.get(), cfg);
    if (rc != 0)
        LOG_STMT(ERR_level, "%s: [%s] FAILED (%d)\n", __func__, fpath, rc);
    return rc;
}
