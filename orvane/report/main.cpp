// orvreport: a verdict, a record and a picture of runs, from the machine lines alone.

#include "report/analyse.h"
#include "report/junit.h"
#include "report/logs.h"
#include "report/merge.h"
#include "report/options.h"
#include "report/page.h"
#include "report/run.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <new>
#include <string>
#include <unistd.h>

namespace {

std::array<output_file *, 3> g_outputs;

// Standard descriptors that are closed stay so: no file opened later gets their numbers.
void keep_descriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) == -1) [[maybe_unused]]
            const int held = open("/dev/null", O_PATH); // the lowest: this one
}

// Ends it where it stands: memory may be short where nothing can be thrown.
[[noreturn]] void end_without_memory()
{
    fputs("orvreport: cannot go on: Cannot allocate memory\n", stderr);
    for (output_file *file : g_outputs)
        if (file != nullptr)
            discard_output(file);
    _exit(STATUS_USAGE);
}

// First of all: what libraries make before main() allocates, too.
__attribute__((constructor(101))) void expect_no_memory()
{
    std::set_new_handler(end_without_memory);
}

void handle_interrupt(int /*signo*/) { g_interrupted = g_interrupted + 1; }

void setup_signals()
{
    struct sigaction action {};
    action.sa_handler = handle_interrupt; // waiting is interrupted, not begun again
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN); // a reader that leaves is a failed output
    signal(SIGXFSZ, SIG_IGN); // so is a file that may not grow
}

struct outputs {
    output_file junit, html;
};

// An output that cannot be written spoils nothing else.
void open_outputs(const report_options &options, report_run *run, outputs *out)
{
    const auto open = [run](output_file *file, const std::string &path) {
        if (!path.empty() && !open_output(file, path))
            raise_status(run, STATUS_USAGE);
    };
    open(&run->json, options.json);
    open(&out->junit, options.junit);
    open(&out->html, options.html);
    run->wants_bins = is_open(out->html);
    g_outputs = {&run->json, &out->junit, &out->html};
}

void finish_outputs(report_run *run, outputs *out)
{
    write_junit(&out->junit, *run);
    write_page(&out->html, *run);
    for (output_file *file : g_outputs)
        if (!finish_output(file))
            raise_status(run, STATUS_USAGE);
}

constexpr const char *WORDS[] = {"without limits", "within limits", "limits exceeded",
                                 "not readable",   "not judged",    "nothing to analyse",
                                 "cut short"};

// Which of the words tells of a capture in the sum of all.
size_t word_of(const judged_capture &capture)
{
    switch (capture.verdict.status) {
    case STATUS_WITHIN:
        return capture.verdict.results.empty() ? 0 : 1;
    case STATUS_EXCEEDED:
        return 2;
    case STATUS_UNREADABLE:
        return 3;
    case STATUS_NOTHING:
        return is_unjudged(capture.tally, capture.verdict) ? 4 : 5;
    default:
        return 6;
    }
}

// A line for each capture and one for all.
void write_verdict(output_file *out, const report_run &run)
{
    size_t count[std::size(WORDS)]{};
    for (const judged_capture &capture : run.captures) {
        ++count[word_of(capture)];
        write_output(out, capture.tally.name + ": " + verdict_text(capture.tally, capture.verdict) +
                              "\n");
    }
    if (run.captures.size() < 2)
        return;
    std::string text;
    for (size_t i = 0; i < std::size(WORDS); ++i)
        if (count[i] > 0)
            text += (text.empty() ? " " : ", ") + std::to_string(count[i]) + " " + WORDS[i];
    write_output(out, std::to_string(run.captures.size()) + " captures:" + text + "\n");
}

void print_verdict(report_run *run, FILE *stream)
{
    output_file out;
    open_stream(&out, stream);
    write_verdict(&out, *run);
    if (!finish_output(&out))
        raise_status(run, STATUS_USAGE);
}

bool uses_standard_output(const report_options &options)
{
    return options.json == "-" || options.junit == "-" || options.html == "-";
}

} // namespace

int main(int argc, char *argv[])
{
    keep_descriptors();
    report_options options;
    switch (parse_report_options(argc, argv, &options)) {
    case options_result::done:
        return STATUS_WITHIN;
    case options_result::wrong:
        return STATUS_USAGE;
    case options_result::run:
        break;
    }
    setup_signals();
    report_run run;
    run.limits = options.limits;
    outputs out;
    open_outputs(options, &run, &out);
    for (const std::string &path : options.records)
        read_records(&run, path);
    for (const std::string &path : options.logs)
        read_log(&run, path);
    analyse_captures(&run, options.captures, {options.settings, options.jobs});
    if (!options.is_quiet)
        print_verdict(&run, uses_standard_output(options) ? stderr : stdout);
    finish_outputs(&run, &out);
    return run.status;
}
