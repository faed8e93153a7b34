// The live host of the examples, fed with real datagrams.

#include "support/capture.h"
#include "support/lines.h"
#include "support/process.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

constexpr unsigned VIDEO = 0x101;
constexpr unsigned AUDIO = 0x102;

// A host that listens on a free port of the loopback address, and the sender of its datagrams.
struct live_host {
    explicit live_host(const std::string &options = "")
        : program({"sh", "-c", "exec '" UDP_HOST_PROGRAM "' " + options + " 127.0.0.1 0"})
    {
        const std::string listening = "listening on 127.0.0.1:";
        program.says(listening);
        const std::string &text = program.err();
        const int port = atoi(text.c_str() + text.find(listening) + listening.size());
        tag = "127.0.0.1:" + std::to_string(port);
        const in_addr loopback{htonl(INADDR_LOOPBACK)};
        const sockaddr_in to{AF_INET, htons(static_cast<uint16_t>(port)), loopback, {}};
        connect(socket, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        c.pat({{1, 0x100}});
        c.pmt(0x100, {.pcr_pid = VIDEO, .streams = {{0x1b, VIDEO}, {0x0f, AUDIO}}});
    }
    ~live_host() { close(socket); }

    void add(int video, int audio)
    {
        c.payload(VIDEO, video);
        c.payload(AUDIO, audio);
    }
    // Sends what was added to `c` since the last datagram, less `cut` bytes at its front.
    void send(size_t cut = 0)
    {
        ::send(socket, c.bytes().data() + sent + cut, c.bytes().size() - sent - cut, 0);
        lose();
    }
    void lose() { sent = c.bytes().size(); } // the same on a network that drops it

    process program;
    int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    capture_builder c; // begins with tables
    size_t sent = 0;
    std::string tag; // source tag of the host's lines
};

} // namespace

// A datagram is lost with one packet of each stream: one event. In the last one the streams differ.
TEST(udp_host, correlates_losses_and_stops_by_itself)
{
    live_host host("-n 9");
    host.add(1, 1);
    host.send();
    for (const auto &[video, audio] : {std::pair{1, 1}, {2, 1}}) {
        host.add(video, audio);
        host.lose();
        host.add(1, 1);
        host.send();
    }
    host.c.payload(VIDEO, 7); // one is taken, then it is enough
    host.send();
    const run_result result = host.program.wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(split_lines(unstamped(result.out)),
                ElementsAre("@ ALERT CC-BRK " + host.tag + " 257 1 0 2 0:0[5]",
                            "@ ALERT CC-BRK " + host.tag + " 258 1 0 2 0:1[6]",
                            "@ ALERT CC-MLR " + host.tag + " 1 1 0:1[6]",
                            "@ ALERT CC-BRK " + host.tag + " 257 2 2 5 0:0[7]",
                            "@ ALERT CC-BRK " + host.tag + " 258 2 2 4 0:1[8]"));
    EXPECT_THAT(result.err, HasSubstr("\tProcessed/analyzed             9/7\n"));
    EXPECT_THAT(result.err, HasSubstr("\t\tCC-MLR:            1\n"));
}

TEST(udp_host, finds_packets_again_in_damaged_datagrams)
{
    live_host host;
    host.send();
    host.c.payload(VIDEO, 2);
    host.c.last(0) = 0x46; // the middle one of three
    host.c.payload(AUDIO);
    host.send();
    host.c.null();
    for (const size_t at : {100U, 150U}) // no packets, though they begin like some
        host.c.last(at) = 0x47;
    host.c.payload(AUDIO, 2);
    host.send(88); // begins in the middle of a packet
    host.c.payload(AUDIO);
    host.c.raw({0x47, 0x01}); // ends in the middle of one
    host.send();
    for (int i = 4; i <= 10; ++i) {
        host.c.raw(octets(187, 0x47)); // nothing whole at all
        host.send();
    }
    const run_result result = host.program.wait();
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(lines_with(result.out, "ALERT LOST-SYNC " + host.tag).size(), 10U);
    EXPECT_EQ(split_lines(result.out).size(), 10U) << result.out; // every packet was taken
    EXPECT_THAT(result.err, HasSubstr("bailing out after 10 cases"));
    EXPECT_THAT(result.err, HasSubstr("\tProcessed/analyzed             7/5\n"));
}

// Two reports come while nothing arrives, the second without values of its own; then the last one.
TEST(udp_host, reports_in_time_and_on_a_signal)
{
    live_host host("-p 1");
    host.c.pcr(VIDEO, 90000);
    host.c.pcr(VIDEO, 91800);
    host.send();
    host.program.says("tsan_stats END\ntsan_stats BEGIN"); // the second report
    host.program.send(SIGTERM);
    const run_result result = host.program.wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(lines_with(result.out, "STAT PMTi " + host.tag + " 0 257 V 2 2 [").size(), 1U);
    const std::string interval = " STAT PCR-freq " + host.tag + " 257 -1 ";
    EXPECT_THAT(result.out, HasSubstr(interval + "20.00 1 20 20 20 20.00 1 20 20 20\n"));
    EXPECT_THAT(result.out, HasSubstr("nan 0 0 0 0 20.00 1 20 20 20\n"));
    EXPECT_THAT(result.err, HasSubstr("0:1 pid258 received no data "));
    EXPECT_THAT(result.err, EndsWith("\ntsan_stats END\n"));
    EXPECT_GE(lines_with(result.err, "tsan_stats END").size(), 3U);
}
