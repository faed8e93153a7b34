#include "tsa/settings_file.h"

#include "tsa/settings_text.h"
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
typedef std::unique_ptr<FILE, close_file> file_ptr;

// The process's settings document; it holds something only during a load.
config_t g_libcfg;

struct settings_document {
    settings_document() { config_init(&g_libcfg); }
    ~settings_document() { config_destroy(&g_libcfg); }
    settings_document(const settings_document &) = delete;
    settings_document &operator=(const settings_document &) = delete;
};

int report_fault(const char *fpath, int line, const char *text)
{
    LOG_STMT(ERR_level, "Error reading/parsing config file [%s]: line %d: %s\n", fpath, line, text);
    return -1;
}

int read_settings(const char *fpath, FILE *fp, tsan_config *cfg)
{
    const settings_text settings = read_settings_text(fp);
    const bool ok = config_read_string(&g_libcfg, settings.text.c_str()) == CONFIG_TRUE;
    const int line = ok ? 0 : config_error_line(&g_libcfg);
    if (!settings.fault.empty() && (ok || line >= static_cast<int>(settings.lines.size())))
        return report_fault(fpath, settings.lines.back(), settings.fault.c_str());
    if (!ok)
        return report_fault(fpath, line_of_file(settings, line), config_error_text(&g_libcfg));
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
    const file_ptr fp(fopen(fpath, "r"));
    if (fp == nullptr) {
        fprintf(stderr, "Failed to load [%s]\n", fpath);
        return -1;
    }
    const int rc = read_settings(fpath, fp.get(), cfg);
    if (rc != 0)
        LOG_STMT(ERR_level, "%s: [%s] FAILED (%d)\n", __func__, fpath, rc);
    return rc;
}
