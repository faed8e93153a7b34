// udp_host [-n PACKETS] [-p SECONDS] ADDRESS PORT: analyses a live stream.
//
// Receives datagrams of transport-stream packets (plain, without RTP headers) on an IPv4 address of
// this machine, or on a multicast group, which it joins. Alerts and STAT lines for machines go to
// standard output, alerts and reports for people to standard error.
//
// Runs until SIGINT, SIGTERM or PACKETS packets, and then writes its last report. With -p, reports
// come every so many seconds, also while nothing arrives. A PORT of 0 takes a free one. Ends with 2
// when it cannot begin or go on: bad arguments, a failed socket, a source that loses packet
// alignment too often or has nothing to analyse.

#include <libtarnlink/log.h>
#include <tsanalyze/tsanalyze.h>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <span>
#include <string>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uint8_t SYNC_BYTE = 0x47;
constexpr int FAILED = 2;

struct options {
    size_t max_packets = 0;   // 0: no limit
    size_t stats_seconds = 0; // 0: no periodic reports
    sockaddr_in address{};
};

struct host {
    tsan_t th = nullptr;
    options opt;
    size_t npackets = 0; // handed to the engine

    bool done() const { return opt.max_packets != 0 && npackets >= opt.max_packets; }
};

bool read_number(const char *text, size_t max, size_t *number)
{
    const char *end = text + strlen(text);
    const auto [last, error] = std::from_chars(text, end, *number);
    if (error == std::errc() && last == end && *number <= max)
        return true;
    fprintf(stderr, "udp_host: not a number up to %zu: %s\n", max, text);
    return false;
}

bool read_options(int argc, char **argv, options *opt)
{
    for (int c = 0; (c = getopt(argc, argv, "n:p:")) != -1;) {
        size_t *number = c == 'n' ? &opt->max_packets : &opt->stats_seconds;
        if (c == '?' || !read_number(optarg, INT32_MAX, number))
            return false;
    }
    size_t port = 0;
    if (argc - optind != 2 || !read_number(argv[optind + 1], UINT16_MAX, &port))
        return false;
    opt->address.sin_family = AF_INET;
    opt->address.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, argv[optind], &opt->address.sin_addr) == 1)
        return true;
    fprintf(stderr, "udp_host: not an IPv4 address: %s\n", argv[optind]);
    return false;
}

// ---- What is waited for

std::string name_of(const sockaddr_in &address)
{
    return std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port));
}

int report_failure(const char *what, const sockaddr_in &address)
{
    const int error = errno;
    fprintf(stderr, "udp_host: cannot %s %s: %s\n", what, name_of(address).c_str(),
            strerror(error));
    return -1;
}

// The datagrams: a bound socket, or -1 after a message. Completes the address by its port.
int open_socket(sockaddr_in *address)
{
    auto *name = reinterpret_cast<sockaddr *>(address);
    socklen_t len = sizeof *address;
    const bool multicast = IN_MULTICAST(ntohl(address->sin_addr.s_addr));
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return report_failure("open a socket for", *address);
    // A group may have several listeners on one machine, and a burst should find room while a
    // report is written. Neither is worth failing for.
    const int shared = multicast ? 1 : 0;
    const int room = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &shared, sizeof shared);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    if (bind(fd, name, len) != 0 || getsockname(fd, name, &len) != 0)
        return report_failure("listen on", *address);
    const ip_mreqn group{address->sin_addr, {INADDR_ANY}, 0};
    if (multicast && setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0)
        return report_failure("join", *address);
    return fd;
}

// SIGINT and SIGTERM, as something to read: none can be missed, and nothing is interrupted.
int open_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC);
}

// ---- The stream

// Where the next packet begins, at `at` or behind it: a sync byte with room for a whole packet that
// is followed by another sync byte or by the end; a sync byte alone may as well be payload. Returns
// the datagram's size when there is none.
size_t find_packet(std::span<const uint8_t> dgram, size_t at)
{
    for (; at + TS_PACKET_SIZE <= dgram.size(); ++at) {
        const size_t next = at + TS_PACKET_SIZE;
        if (dgram[at] == SYNC_BYTE && (next == dgram.size() || dgram[next] == SYNC_BYTE))
            return at;
    }
    return dgram.size();
}

// Hands the packets of a datagram to the engine. Returns 0, or the engine's wish to end.
int take_datagram(host *h, std::span<const uint8_t> dgram)
{
    int rc = 0;
    for (size_t at = 0; rc == 0 && !h->done() && at < dgram.size();) {
        if (dgram[at] == SYNC_BYTE && at + TS_PACKET_SIZE <= dgram.size()) {
            rc = tsan_process(h->th, dgram.data() + at);
            ++h->npackets;
            at += TS_PACKET_SIZE;
        } else { // a damaged packet, or a fragment of one
            rc = tsan_alert_lostsync(h->th);
            at = find_packet(dgram, at + 1);
        }
    }
    tsan_next_seg(h->th); // what several streams lost since the last call, they lost together
    return rc;
}

int receive_datagram(host *h, int sock)
{
    static std::array<uint8_t, 65536> buf; // no datagram is larger
    const ssize_t n = recv(sock, buf.data(), buf.size(), MSG_DONTWAIT);
    if (n >= 0)
        return take_datagram(h, {buf.data(), static_cast<size_t>(n)});
    if (errno == EINTR || errno == EAGAIN) // a datagram that was waited for may prove broken
        return 0;
    perror("udp_host: recv");
    return -1;
}

// Receives until a signal, the packet limit or a failure. Returns the exit status.
int receive(host *h, int sock, int signals)
{
    std::array<pollfd, 2> wanted{{{sock, POLLIN, 0}, {signals, POLLIN, 0}}};
    // The engine counts periods in whole seconds; it is asked every second while nothing comes.
    const int timeout_ms = h->opt.stats_seconds != 0 ? 1000 : -1;
    tsan_check_dump_stats(stderr, h->th); // the first call begins the first period
    while (!h->done()) {
        if (poll(wanted.data(), wanted.size(), timeout_ms) < 0) {
            if (errno == EINTR)
                continue;
            perror("udp_host: poll");
            return FAILED;
        }
        if (wanted[1].revents != 0)
            return 0;
        if (wanted[0].revents != 0 && receive_datagram(h, sock) != 0)
            return FAILED;
        if (tsan_check_dump_stats(stderr, h->th) == TSAN_REPORTED)
            tsan_reset_local_stats(h->th); // averages of the next period alone
    }
    return 0;
}

tsan_config settings(const options &opt)
{
    tsan_config cfg;
    tsan_default_config(&cfg);
    cfg.access_log_alerts = true;
    cfg.dump_stats_period = opt.stats_seconds;
    return cfg;
}

} // namespace

int main(int argc, char **argv)
{
    host h;
    if (!read_options(argc, argv, &h.opt)) {
        fprintf(stderr, "usage: udp_host [-n PACKETS] [-p SECONDS] ADDRESS PORT\n");
        return FAILED;
    }
    log_default(&g_log, stderr);
    log_default(&g_access_log, stdout);
    setvbuf(stdout, nullptr, _IOLBF, 0); // every line reaches its reader at once

    const int signals = open_signals();
    const int sock = open_socket(&h.opt.address);
    if (sock < 0)
        return FAILED;
    const std::string source = name_of(h.opt.address);
    const tsan_config cfg = settings(h.opt);
    h.th = tsan_init(source.c_str(), &cfg, nullptr);
    if (signals < 0 || h.th == nullptr) {
        perror("udp_host");
        return FAILED;
    }
    fprintf(stderr, "udp_host: listening on %s\n", source.c_str());
    const int status = receive(&h, sock, signals);
    tsan_check_ndat(h.th);
    tsan_dump_stats(stderr, h.th);
    tsan_free(h.th);
    return status;
}
