#include "tsa/options.h"

#include "common/appcfg.h"
#include "common/meta.h"
#include "tsa/settings_file.h"

#include <libtarnlink/log.h>
#include <libtarnlink/strops.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <getopt.h>
#include <strings.h>
#include <unistd.h>

config g_cfg;

namespace {

loglevel_ctx g_llctx;

constexpr char OPTIONS[] = "ZtvV?S:s:a:Hr:m:C:Y:k:A:";

constexpr option LONG_OPTIONS[] = {
    {"srctag", required_argument, nullptr, 'S'}, {"maxskip", required_argument, nullptr, 's'},
    {"from", required_argument, nullptr, 'r'},   {"maxnum", required_argument, nullptr, 'm'},
    {"config", required_argument, nullptr, 'C'}, {"syslog", required_argument, nullptr, 'Y'},
    {"track", required_argument, nullptr, 'k'},  {"analyze", required_argument, nullptr, 'A'},
    {"alerts", required_argument, nullptr, 'a'}, {"hushlog", no_argument, nullptr, 'H'},
    {"options", no_argument, nullptr, '?'},      {"verbose", no_argument, nullptr, 'v'},
    {"version", no_argument, nullptr, 'V'},      {nullptr, 0, nullptr, 0},
};

constexpr char HELP[] = R"( PARAMETERS:
       -S tag      = source tag
 OPTIONS:
       -C config   = load settings from orv config file
       -v          = increase verbosity
       -a on|off   = send (if on) alerts to STDOUT
       -H          = do NOT write alerts to application log
       -A o=s      = specify analyzer option/setting
       -s num      = max # packets to skip
       -Y facility = syslog(3) alerts using {facility}
       -r num      = start at record # num (1-based) [1]
       -m num      = process max=N records [0 = all]
       -k {o1}:..  = specify tracking option(s) []
       -?          = show help and exit
       -V          = output application's version

)";

constexpr size_t MAX_SKIP_LIMIT = 100000;
constexpr int SYSLOG_OPTIONS = 6; // console fallback, delayed open

int set_max_skip(const char *text)
{
    size_t &max_skip = g_cfg.tsa.max_skip_pkts;
    max_skip = static_cast<size_t>(strtol(text, nullptr, 10));
    if (max_skip >= 1 && max_skip <= MAX_SKIP_LIMIT)
        return 0;
    fprintf(stderr, "-S value is too small/big\n"); // the option is -s; the text is known so
    return ERANGE;
}

int set_start_rec(const char *text)
{
    g_cfg.start_rec = strtol(text, nullptr, 10);
    if (g_cfg.start_rec > 0)
        return 0;
    fprintf(stderr, "Bad -r value (%ld)\n", g_cfg.start_rec);
    return ERANGE;
}

int set_syslog(const char *facility)
{
    const int code = str2fac(facility);
    if (code < 0) {
        fprintf(stderr, "Invalid/un-supported syslog facility: %s\n", facility);
        return EINVAL;
    }
    config_syslog(&g_access_log, "orvscan", SYSLOG_OPTIONS, code);
    return 0;
}

int set_tracking(const char *words)
{
    if (tsan_xtrack_opt(words, &g_cfg.tsa) == 0)
        return 0;
    fprintf(stderr, "Invalid tracking option: %s\n", words);
    return EINVAL;
}

// Acts on one option of the second pass; those of the first are done.
int apply_option(int opt)
{
    switch (opt) {
    case 'A':
        return tsan_cli_opt(optarg, &g_cfg.tsa) == TSAN_OK ? 0 : EINVAL;
    case 'H':
        g_cfg.tsa.no_rlog = true;
        return 0;
    case 'S':
        copy_text(g_cfg.tsa.source, sizeof g_cfg.tsa.source, optarg);
        return 0;
    case 'Y':
        return set_syslog(optarg);
    case 'a':
        g_cfg.tsa.access_log_alerts = strcasecmp(optarg, "on") == 0;
        return 0;
    case 'k':
        return set_tracking(optarg);
    case 'm':
        g_cfg.max_records = static_cast<uint64_t>(strtol(optarg, nullptr, 10));
        return 0;
    case 'r':
        return set_start_rec(optarg);
    case 's':
        return set_max_skip(optarg);
    default:
        return 0;
    }
}

int next_option(int argc, char *argv[])
{
    return getopt_long(argc, argv, OPTIONS, LONG_OPTIONS, nullptr);
}

// What comes before everything else: help, version, verbosity, and the settings file, which every
// option overrides wherever it stands.
int first_pass(int argc, char *argv[])
{
    for (int opt = 0; (opt = next_option(argc, argv)) != -1;) {
        switch (opt) {
        case 'v':
            ++g_cfg.verbosity;
            break;
        case 'V':
            fprintf(stderr, "%s\n", version_banner());
            exit(1);
        case '?':
            usage(argv[0], 1);
        case 'C':
            if (load_config(optarg, &g_cfg.tsa) != 0)
                return -1;
            break;
        default:
            break;
        }
    }
    return 0;
}

int second_pass(int argc, char *argv[])
{
    optind = 0; // makes the parser start again
    for (int opt = 0; (opt = next_option(argc, argv)) != -1;)
        if (const int rc = apply_option(opt); rc != 0)
            return rc;
    return 0;
}

} // namespace

void init_config()
{
    g_cfg = {};
    g_cfg.tsa.is_enabled = true;
    g_cfg.tsa.max_skip_pkts = 5000;
    g_cfg.tsa.cc_track = true;
    g_cfg.tsa.cc_max_ms0_ms = 30;
}

void usage(const char *app, int exit_code)
{
    fprintf(stderr, "%s\n", version_banner());
    fprintf(stderr, "Usage: %s -s source OPTIONS fpath\n", app); // "-s" is known so
    fputs(HELP, stderr);
    fprintf(stderr, "----\n%s [-ggdb]\n----\n\n", library_info());
    exit(exit_code);
}

int parse_options(int argc, char *argv[])
{
    int rc = first_pass(argc, argv);
    if (rc == 0)
        rc = second_pass(argc, argv);
    if (rc != 0)
        return rc;
    if (optind >= argc || argv[optind][0] == '\0') {
        fprintf(stderr, "Expecting argument after the options.\n");
        usage(argv[0], 2);
    }
    copy_text(g_cfg.fpath, sizeof g_cfg.fpath, argv[optind]);
    if (g_cfg.tsa.source[0] == '\0')
        copy_text(g_cfg.tsa.source, sizeof g_cfg.tsa.source, g_cfg.fpath);

    g_mod_ll[g_llctx.mod] = std::min<int>(g_cfg.verbosity, DEBUG_level);
    LOG_STMT(INFO_level, "fpath=[%s], verbosity=%d, start-rec=%ld, max-recs: %zu\n", g_cfg.fpath,
             g_cfg.verbosity, g_cfg.start_rec, g_cfg.max_records);
    if (g_cfg.verbosity > 0 || getenv("SHOW_ORV_CFG") != nullptr)
        tsan_dump_config(stderr, "analyzer", &g_cfg.tsa);
    return 0;
}
