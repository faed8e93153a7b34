#include "report/analyse.h"

#include "report/blocks.h"
#include "report/child.h"
#include "report/lines.h"
#include "report/progress.h"
#include "report/record.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <memory>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int POLL_MS = 200;
constexpr size_t COMPLAINT_BYTES = 4096; // kept of what a child says on standard error
constexpr int PIPE_BYTES = 1 << 20;

struct unmap {
    void operator()(child_progress *progress) const { munmap(progress, sizeof *progress); }
};

struct descriptor {
    int fd = -1;
    ~descriptor() { reset(); }
    void reset()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
};

// A capture under way.
struct job {
    judged_capture *capture = nullptr;
    pid_t pid = -1;
    descriptor lines, complaints; // read ends
    line_blocks blocks{BLOCK_BYTES};
    std::unique_ptr<line_parser> parser = std::make_unique<line_parser>();
    std::unique_ptr<child_progress, unmap> progress;
    std::string said; // the end of what came on standard error
};

struct analysis {
    report_run *run;
    const analyse_options *options;
    std::list<job> jobs;
    size_t done = 0;
    uint64_t done_bytes = 0;
    int asked = 0; // how often the children were asked to end
};

std::unique_ptr<child_progress, unmap> make_progress()
{
    void *memory = mmap(nullptr, sizeof(child_progress), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return nullptr;
    return std::unique_ptr<child_progress, unmap>(
        new (memory) child_progress{.packets = 0, .end = run_end::not_begun, .error = 0});
}

void set_end(capture_tally *tally, run_end end, const std::string &reason)
{
    tally->end = end;
    tally->reason = reason;
}

// ---- Starting

// Starts the child of a job. Returns 0 or the error number.
int start_child(const analysis &all, job *j)
{
    int lines[2] = {-1, -1};
    int complaints[2] = {-1, -1};
    j->progress = make_progress();
    if (j->progress == nullptr || pipe2(lines, O_CLOEXEC) != 0)
        return errno;
    j->lines.fd = lines[0];
    const descriptor lines_in{lines[1]};
    if (pipe2(complaints, O_CLOEXEC) != 0)
        return errno;
    j->complaints.fd = complaints[0];
    const descriptor complaints_in{complaints[1]};
    fcntl(lines[0], F_SETPIPE_SZ, PIPE_BYTES); // fewer turns; a smaller pipe will do as well
    fflush(stdout);                            // what is in there is not the child's to write
    j->pid = fork();
    if (j->pid == 0) {
        dup2(lines_in.fd, STDOUT_FILENO);
        dup2(complaints_in.fd, STDERR_FILENO);
        analyse_in_child(all.options->settings, j->capture->tally.file, j->progress.get());
    }
    return j->pid < 0 ? errno : 0;
}

void start_job(analysis *all, judged_capture *capture)
{
    job &j = all->jobs.emplace_back();
    j.capture = capture;
    capture->tally.end = run_end::not_begun;
    const int error = start_child(*all, &j);
    if (error == 0)
        return;
    set_end(&capture->tally, run_end::not_begun, std::string("not begun: ") + strerror(error));
    close_capture(all->run, capture);
    all->jobs.pop_back();
}

// ---- Ending

// The line of a broken invariant among the complaints, without the file and the function.
std::string find_invariant(const std::string &said)
{
    const size_t at = said.rfind("invariant `");
    return at == said.npos ? "" : said.substr(at, said.find('\n', at) - at);
}

std::string at_packet(uint64_t packet) { return " at packet " + std::to_string(packet); }

void explain_death(const job &j, int status)
{
    capture_tally &tally = j.capture->tally;
    tally.place = j.progress->packets;
    const std::string broken = find_invariant(j.said);
    if (g_interrupted > 1)
        set_end(&tally, run_end::interrupted, "interrupted" + at_packet(*tally.place));
    else if (!broken.empty())
        set_end(&tally, run_end::invariant, "ended" + at_packet(*tally.place) + " by " + broken);
    else if (WIFSIGNALED(status))
        set_end(&tally, run_end::killed,
                "ended" + at_packet(*tally.place) + " by signal " +
                    std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")");
    else
        set_end(&tally, run_end::killed, "ended" + at_packet(*tally.place) + " by itself");
}

void explain_end(const job &j, run_end end)
{
    capture_tally &tally = j.capture->tally;
    const std::string here = at_packet(j.progress->packets);
    if (end != run_end::complete)
        tally.place = j.progress->packets;
    switch (end) {
    case run_end::lost_sync:
        return set_end(&tally, end, "lost sync" + here);
    case run_end::idle:
        return set_end(&tally, end, "idle: nothing to analyse up to" + here.substr(3));
    case run_end::unreadable:
        return set_end(&tally, end, std::string("cannot be read: ") + strerror(j.progress->error));
    case run_end::interrupted:
        return set_end(&tally, end, "interrupted" + here);
    default:
        return tally.analysed.value_or(0) == 0
                   ? set_end(&tally, run_end::nothing,
                             tally.programmes.empty() ? "no programme" : "no stream packet")
                   : set_end(&tally, end, "");
    }
}

// What the report says of the whole capture.
void add_totals(job *j)
{
    capture_tally &tally = j->capture->tally;
    tally.packets = j->progress->packets;
    tally.bytes = *tally.packets * TS_PACKET_SIZE;
    if (!tally.has_stats)
        return;
    tally.analysed = 0;
    for (const programme_record &programme : tally.programmes)
        *tally.analysed += programme.counters[1];
}

// Nothing could be read, which is not the same as no packet.
void forget_totals(capture_tally *tally)
{
    tally->place = tally->bytes = tally->packets = tally->analysed = std::nullopt;
}

void end_job(analysis *all, job *j)
{
    int status = 0;
    while (waitpid(j->pid, &status, 0) < 0 && errno == EINTR) {
    }
    add_totals(j);
    const run_end end = j->progress->end;
    if (end == run_end::not_begun)
        explain_death(*j, status);
    else
        explain_end(*j, end);
    ++all->done;
    all->done_bytes += *j->capture->tally.bytes;
    if (end == run_end::unreadable && j->capture->tally.packets == 0)
        forget_totals(&j->capture->tally);
    close_capture(all->run, j->capture);
}

// ---- Meanwhile

void take_lines(analysis *all, job *j)
{
    if (fill_blocks(&j->blocks, j->lines.fd) <= 0)
        j->lines.reset();
    capture_tally &tally = j->capture->tally;
    text_line line;
    line_event event;
    while (next_line(&j->blocks, &line)) {
        if (parse_line(j->parser.get(), line.text, &event) != line_class::event)
            continue; // a killed child's last line
        alert_record alert;
        tally_event(&tally, event, &alert);
        if (is_alert(event.kind))
            write_alert(&all->run->json, tally, alert);
    }
}

void take_complaints(job *j)
{
    char block[COMPLAINT_BYTES];
    const ssize_t n = read(j->complaints.fd, block, sizeof block);
    if (n > 0)
        j->said.append(block, static_cast<size_t>(n));
    else if (n == 0 || errno != EINTR)
        j->complaints.reset();
    if (j->said.size() > COMPLAINT_BYTES)
        j->said.erase(0, j->said.size() - COMPLAINT_BYTES);
}

// Waits until a child has something to say, and listens.
void listen(analysis *all)
{
    std::vector<pollfd> fds;
    for (const job &j : all->jobs)
        for (const int fd : {j.lines.fd, j.complaints.fd})
            fds.push_back({fd, POLLIN, 0}); // a closed one is passed over
    if (poll(fds.data(), fds.size(), POLL_MS) <= 0)
        return;
    auto fd = fds.begin();
    for (job &j : all->jobs) {
        if ((fd++)->revents != 0)
            take_lines(all, &j);
        if ((fd++)->revents != 0)
            take_complaints(&j);
    }
}

void end_silent_jobs(analysis *all)
{
    for (auto j = all->jobs.begin(); j != all->jobs.end();) {
        const bool is_over = j->lines.fd < 0 && j->complaints.fd < 0;
        if (is_over)
            end_job(all, &*j);
        j = is_over ? all->jobs.erase(j) : std::next(j);
    }
}

// Hands the user's wish on to the children: to end, and the second time at once.
void pass_on_interrupts(analysis *all)
{
    for (; all->asked < g_interrupted; ++all->asked)
        for (const job &j : all->jobs)
            kill(j.pid, all->asked == 0 ? SIGTERM : SIGKILL);
}

uint64_t size_of(const std::string &path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size)
                                                               : 0;
}

uint64_t bytes_so_far(const analysis &all)
{
    uint64_t bytes = all.done_bytes;
    for (const job &j : all.jobs)
        bytes += j.progress->packets * TS_PACKET_SIZE;
    return bytes;
}

check_record checks_of(const tsan_config &cfg)
{
    if (!cfg.is_enabled) // PCR intervals are watched all the same
        return {.pcr_interval_ms = cfg.pcr_freq_ms, .counters = false, .iso = cfg.iso_rules};
    return {cfg.max_pdts_delta, cfg.max_pcr_delta, cfg.pcr_freq_ms, cfg.cc_track, cfg.iso_rules};
}

} // namespace

void analyse_captures(report_run *run, const std::vector<std::string> &paths,
                      const analyse_options &options)
{
    analysis all{run, &options, {}};
    std::vector<judged_capture *> waiting;
    uint64_t total_bytes = 0;
    for (const std::string &path : paths) {
        waiting.push_back(add_capture(run, path));
        capture_tally &tally = waiting.back()->tally;
        tally.source = path;
        tally.checks = checks_of(options.settings);
        total_bytes += size_of(path);
    }
    progress_line line = begin_progress(paths.size(), total_bytes);
    auto next = waiting.begin();
    while (next != waiting.end() || !all.jobs.empty()) {
        while (next != waiting.end() && all.jobs.size() < options.jobs && g_interrupted == 0)
            start_job(&all, *next++);
        for (; next != waiting.end() && g_interrupted != 0; ++next) {
            set_end(&(*next)->tally, run_end::not_begun, "not begun");
            close_capture(run, *next);
        }
        pass_on_interrupts(&all);
        if (!all.jobs.empty())
            listen(&all);
        end_silent_jobs(&all);
        show_progress(&line, all.done, bytes_so_far(all));
    }
    end_progress(&line);
}
