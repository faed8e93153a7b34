// What the analyzer is measured against: the least that the same work costs.
//
//     read_loop scan FILE               reads a capture, checks sync bytes, counts continuity
//     read_loop lines COUNT TEXT...     writes lines, one write(2) each: every TEXT in turn
//     read_loop rss PROGRAM ARGUMENT... runs a program in silence, tells its peak resident size,
//     KiB

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t PKT_SIZE = 188;
constexpr size_t BUF_SIZE = 1 << 20;
constexpr uint8_t NO_CC = 255;
constexpr unsigned NULL_PID = 0x1fff;

struct scan_counts {
    uint64_t packets = 0;
    uint64_t lost_sync = 0;
    uint64_t breaks = 0;
};

void scan_packet(const uint8_t *pkt, std::array<uint8_t, 8192> *last_cc, scan_counts *counts)
{
    ++counts->packets;
    if (pkt[0] != 0x47) {
        ++counts->lost_sync;
        return;
    }
    const unsigned pid = (pkt[1] & 0x1fu) << 8 | pkt[2];
    if ((pkt[3] & 0x10) == 0 || pid == NULL_PID)
        return;
    const uint8_t cc = pkt[3] & 15;
    uint8_t &last = (*last_cc)[pid];
    if (last != NO_CC && cc != ((last + 1) & 15))
        ++counts->breaks;
    last = cc;
}

int scan(const char *path)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        perror(path);
        return 1;
    }
    const auto buf = std::make_unique<uint8_t[]>(BUF_SIZE);
    std::array<uint8_t, 8192> last_cc{};
    last_cc.fill(NO_CC);
    scan_counts counts;
    size_t held = 0;
    for (ssize_t n = 0; (n = read(fd, buf.get() + held, BUF_SIZE - held)) > 0;) {
        held += static_cast<size_t>(n);
        size_t at = 0;
        for (; held - at >= PKT_SIZE; at += PKT_SIZE)
            scan_packet(buf.get() + at, &last_cc, &counts);
        held -= at;
        memmove(buf.get(), buf.get() + at, held);
    }
    close(fd);
    printf("%lu packets, %lu without sync, %lu breaks\n", counts.packets, counts.lost_sync,
           counts.breaks);
    return 0;
}

int write_lines(uint64_t count, char *texts[])
{
    std::vector<std::string> lines;
    for (; *texts != nullptr; ++texts)
        lines.push_back(std::string(*texts) + '\n');
    for (uint64_t i = 0; i < count; ++i)
        for (const std::string &line : lines)
            if (write(STDOUT_FILENO, line.data(), line.size()) < 0)
                return 1;
    return 0;
}

[[noreturn]] void run_silent(char *args[])
{
    const int null = open("/dev/null", O_RDWR);
    if (null >= 0 && dup2(null, STDOUT_FILENO) >= 0 && dup2(null, STDERR_FILENO) >= 0)
        execvp(args[0], args);
    _exit(127);
}

int show_peak(char *args[])
{
    const pid_t child = fork();
    if (child == 0)
        run_silent(args);
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) < 0) {
        perror(args[0]);
        return 1;
    }
    printf("%ld\n", usage.ru_maxrss);
    return WIFEXITED(status) && WEXITSTATUS(status) != 127 ? 0 : 1;
}

} // namespace

int main(int argc, char *argv[])
{
    const char *work = argc > 2 ? argv[1] : "";
    if (strcmp(work, "scan") == 0)
        return scan(argv[2]);
    if (strcmp(work, "lines") == 0)
        return write_lines(strtoull(argv[2], nullptr, 10), argv + 3);
    if (strcmp(work, "rss") == 0)
        return show_peak(argv + 2);
    fputs("Usage: read_loop scan FILE | lines COUNT TEXT... | rss PROGRAM ARGUMENT...\n", stderr);
    return 2;
}
