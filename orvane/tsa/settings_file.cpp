#include "orvane/tsa/settings_file.h"

#include "tsanalyze/tsanalyze.h"

#include <libtarnlink/log.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <libconfig.h>
#include <memory>
#include <sstream>
#include <string>

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

// What is wrong with a settings file before the parser may see it. Without an error the parser may,
// and a line means that it will stop there itself.
struct file_fault {
    int line = -1;
    int error = 0;
};

// The parser needs time that grows with the square of a long text, and ends the process itself when
// a file it reads is a folder. So files are read here, and those they include are looked at; all of
// them together have this many bytes at most.
constexpr size_t MAX_SETTINGS_BYTES = 1 << 20;
constexpr int MAX_INCLUDE_DEPTH = 10; // the parser's own limit

int read_text(FILE *fp, std::string *text, size_t *budget)
{
    char block[4096];
    errno = 0;
    for (size_t n = 0; (n = fread(block, 1, sizeof block, fp)) > 0; *budget -= n) {
        if (n > *budget)
            return EFBIG;
        text->append(block, n);
    }
    return ferror(fp) != 0 ? errno : 0;
}

file_fault check_includes(const std::string &text, int depth, size_t *budget)
{
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        char path[4096];
        if (sscanf(line.c_str(), " @include \"%4095[^\"]\"", path) != 1)
            continue;
        const file_ptr fp(fopen(path, "r"));
        if (fp == nullptr)
            continue; // the parser says so, unless it stands in a comment
        if (depth >= MAX_INCLUDE_DEPTH)
            return {number, 0};
        std::string included;
        if (const int error = read_text(fp.get(), &included, budget); error != 0)
            return {number, error};
        if (const file_fault fault = check_includes(included, depth + 1, budget); fault.line >= 0)
            return {number, fault.error};
    }
    return {};
}

int report_fault(const char *fpath, int line, const char *text)
{
    LOG_STMT(ERR_level, "Error reading/parsing config file [%s]: line %d: %s\n", fpath, line, text);
    return -1;
}

int read_settings(const char *fpath, FILE *fp, tsan_config *cfg)
{
    std::string text;
    size_t budget = MAX_SETTINGS_BYTES;
    if (const int error = read_text(fp, &text, &budget); error != 0)
        return report_fault(fpath, 0, strerror(error));
    if (const file_fault fault = check_includes(text, 1, &budget); fault.error != 0)
        return report_fault(fpath, fault.line, strerror(fault.error));
    if (text.empty())
        text = "\n";
    const file_ptr stream(fmemopen(text.data(), text.size(), "r"));
    if (stream == nullptr)
        return report_fault(fpath, 0, strerror(errno));
    if (config_read(&g_libcfg, stream.get()) != CONFIG_TRUE)
        return report_fault(fpath, config_error_line(&g_libcfg), config_error_text(&g_libcfg));
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
