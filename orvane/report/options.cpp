#include "report/options.h"

#include "orvane/tsa/options.h"
#include "orvane/tsa/settings_file.h"

#include <CLI/CLI.hpp>
#include <libtarnlink/log.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr char TS_SYNC_BYTE = 0x47; // ISO/IEC 13818-1, 2.4.3.2

constexpr const char *ABOUT =
    "A verdict, a record and a picture of runs of the transport-stream analyzer.\n"
    "Analyses captures, reads access logs (--log) and records of earlier runs (--merge).";

constexpr const char *STATUSES =
    "Exit status, the highest of all captures: 0 within limits; 1 a limit exceeded;\n"
    "2 usage, or an output that cannot be written; 3 cannot be read; 4 nothing to analyse,\n"
    "or to judge a limit by; 5 cut short.";

// What the command line says in words.
struct option_words {
    std::string settings_file;
    std::vector<std::string> settings, limits, limit_files;
    size_t max_skip = 0;
};

void add_options(CLI::App *app, report_options *options, option_words *words)
{
    app->set_version_flag("-V,--version", "orvreport " ORVSCAN_VERSION);
    app->set_help_flag("-h,--help", "Show this help and exit");
    app->add_option("CAPTURE", options->captures, "Captures to analyse");
    app->add_option("--log", options->logs, "Access logs to read (-: standard input)");
    app->add_option("--merge", options->records, "Records of --json to go on with");
    app->add_option("-C,--config", words->settings_file, "Settings file, as for orvscan");
    app->add_option("-A,--analyze", words->settings, "Analyzer setting, as for orvscan")
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false);
    app->add_option("-s,--maxskip", words->max_skip, "Packets to skip at most")
        ->check(CLI::Range(1, 100000));
    app->add_option("-j,--jobs", options->jobs, "Captures at a time (default: the cores)")
        ->check(CLI::Range(1U, 1024U));
    app->add_option("--max", words->limits, "Limit: KIND=N, KIND/PID=N or all=N")
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false);
    app->add_option("--limits", words->limit_files, "File of limits, one a line")
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false);
    app->add_option("--json", options->json, "Write a record, JSON Lines (-: standard output)");
    app->add_option("--junit", options->junit, "Write the verdict as JUnit XML");
    app->add_option("--html", options->html, "Write a page with the picture");
    app->add_flag("-q,--quiet", options->is_quiet, "No lines of verdict");
    app->footer(STATUSES);
}

bool tell_wrong(const std::string &what)
{
    fprintf(stderr, "orvreport: %s\n", what.c_str());
    return false;
}

bool take_limits(const option_words &words, std::vector<alert_limit> *limits)
{
    for (const std::string &path : words.limit_files)
        if (const std::string fault = read_limits(path, limits); !fault.empty())
            return tell_wrong(fault);
    for (const std::string &text : words.limits) {
        alert_limit limit;
        if (const std::string fault = parse_limit(text, &limit); !fault.empty())
            return tell_wrong(fault);
        add_limit(limits, limit);
    }
    return true;
}

// The settings of a run of orvscan: its defaults, the file, the command line over both.
bool take_settings(const option_words &words, tsan_config *settings)
{
    init_config();
    tsan_config &cfg = g_cfg.tsa;
    if (!words.settings_file.empty() && load_config(words.settings_file.c_str(), &cfg) != 0)
        return false; // it was told
    for (const std::string &setting : words.settings)
        if (tsan_cli_opt(setting.c_str(), &cfg) != 0)
            return tell_wrong("invalid analyzer setting \"" + setting + "\"");
    if (words.max_skip != 0)
        cfg.max_skip_pkts = words.max_skip;
    *settings = cfg;
    return true;
}

// Whether two names are those of one file, which need not be there yet.
bool same_file(const std::string &a, const std::string &b)
{
    std::error_code error;
    if (fs::is_character_file(a, error))
        return false; // such as /dev/null
    if (fs::equivalent(a, b, error))
        return true;
    const fs::path whole = fs::weakly_canonical(fs::absolute(a, error), error);
    return !whole.empty() && whole == fs::weakly_canonical(fs::absolute(b, error), error);
}

// Whether it may be a capture: a name was forgotten, perhaps, and the next word taken for it.
bool is_capture(const std::string &path)
{
    std::error_code error;
    if (!fs::is_regular_file(path, error))
        return false;
    char begin[TS_PACKET_SIZE + 1]{};
    std::ifstream in(path);
    in.read(begin, sizeof begin);
    return !in.is_open() || (begin[0] == TS_SYNC_BYTE && begin[TS_PACKET_SIZE] == TS_SYNC_BYTE);
}

std::vector<std::string> inputs_of(const report_options &options, const option_words &words)
{
    std::vector<std::string> inputs = options.captures;
    for (const auto *more : {&options.logs, &options.records, &words.limit_files})
        inputs.insert(inputs.end(), more->begin(), more->end());
    if (!words.settings_file.empty())
        inputs.push_back(words.settings_file);
    return inputs;
}

// What is read is not replaced, and no output by another one.
bool take_outputs(const CLI::App &app, const report_options &options, const option_words &words)
{
    const std::vector<std::string> inputs = inputs_of(options, words);
    std::vector<std::string> outputs;
    for (const char *name : {"--json", "--junit", "--html"}) {
        if (app.count(name) == 0)
            continue;
        const auto path = app.get_option(name)->as<std::string>();
        if (path.empty())
            return tell_wrong(std::string(name) + " names no file");
        for (const std::string &input : inputs)
            if (path != "-" && same_file(path, input))
                return tell_wrong(std::string(name) + ": " + path + " is read as well");
        for (const std::string &other : outputs)
            if (same_file(path, other))
                return tell_wrong("two outputs to " + path);
        if (is_capture(path))
            return tell_wrong(std::string(name) + ": " + path +
                              " is a capture, or cannot be read; it is not replaced");
        outputs.push_back(path);
    }
    return true;
}

} // namespace

options_result parse_report_options(int argc, char *argv[], report_options *options)
{
    CLI::App app(ABOUT, "orvreport");
    option_words words;
    options->jobs = std::max(1U, std::thread::hardware_concurrency());
    add_options(&app, options, &words);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &wanted) {
        app.exit(wanted);
        return options_result::done;
    } catch (const CLI::ParseError &fault) {
        tell_wrong(std::string(fault.what()) + " (--help tells the options)");
        return options_result::wrong;
    }
    log_default(&g_log, stderr);
    for (auto *paths : {&options->logs, &options->records})
        std::replace(paths->begin(), paths->end(), std::string("-"), std::string("/dev/stdin"));
    if (!take_limits(words, &options->limits) || !take_settings(words, &options->settings) ||
        !take_outputs(app, *options, words))
        return options_result::wrong;
    if (options->captures.empty() && options->logs.empty() && options->records.empty()) {
        tell_wrong("no capture, log or record is named (--help tells the options)");
        return options_result::wrong;
    }
    return options_result::run;
}
