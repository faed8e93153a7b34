// Reading captures of every kind, and the surroundings of a run.

#include "program.h"
#include "tsa/capture.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <fstream>
#include <map>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace testing;

TEST_F(program, reads_a_pipe_and_stops_on_signals)
{
    capture_builder c;
    c.null(99);
    c.pat({{1, 0x100}});
    const std::string fifo = dir.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const int signo : {0, SIGINT, SIGTERM}) {
        process run({ORVSCAN_PROGRAM, "-v", fifo});
        std::ofstream feed(fifo, std::ios::binary);
        feed << c.text() << std::flush;
        ASSERT_TRUE(run.says("using PAT")); // as soon as the group is there
        run.send(signo);
        feed << null_text(150) << "G";
        feed.close();
        const run_result result = comparable(run.wait());
        const std::string records = signo == 0 ? "250" : "100";
        EXPECT_THAT(result.err, HasSubstr("  47000/" + records + " bytes/records read"));
        EXPECT_THAT(result.err, EndsWith("\ntsan_stats END\n" + exit_line(0)));
        EXPECT_EQ(result.out, signo == 0 ? "\n" : "\nSIG(" + std::to_string(signo) + ")\n\n");
    }
}

// A packet pipe hands out what one write brought, and no more.
TEST(capture, of_reads_of_any_size)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC), 0);
    capture cap;
    cap.fd = ends[0];
    const std::string text = null_text(4);
    size_t at = 0;
    for (const size_t size : {1U, 1U, 185U, 1U, 1U, 187U, 188U, 1U, 187U})
        at += static_cast<size_t>(write(ends[1], text.data() + at, size));
    ASSERT_EQ(at, text.size());
    close(ends[1]);
    const uint8_t *pkts = nullptr;
    ASSERT_EQ(next_packets(&cap, &pkts), 4U);
    EXPECT_EQ(std::string(pkts, pkts + text.size()), text);
    EXPECT_EQ(next_packets(&cap, &pkts), 0U);
    EXPECT_EQ(cap.error, 0);
}

TEST(capture, that_changes_its_size)
{
    const temp_dir dir;
    const std::string path = dir.file("c.ts", null_text(3000));
    capture cap;
    ASSERT_EQ(open_capture(&cap, path.c_str()), 0);
    const uint8_t *pkts = nullptr;
    EXPECT_EQ(next_packets(&cap, &pkts), READ_PKTS);
    ASSERT_EQ(truncate(path.c_str(), 2050 * 188 + 7), 0);
    size_t count = READ_PKTS;
    while (const size_t n = next_packets(&cap, &pkts))
        count += n;
    EXPECT_EQ(count, 2050U);
    std::ofstream(path, std::ios::app) << null_text(2).substr(7);
    EXPECT_EQ(next_packets(&cap, &pkts), 2U);
    EXPECT_EQ(pkts[188], 0x47);
}

// As usual in pipelines: it ends where nobody reads its alerts any more.
TEST_F(program, ends_with_the_reader_of_its_output)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(shell("exec orvscan null.ts >&" + std::to_string(ends[1])).status, -SIGPIPE);
    close(ends[1]);
}

// The settings library's own allocations apart, which it does not look at.
TEST_F(program, says_so_without_memory)
{
    if (ORVSCAN_FAIL_ALLOC[0] == '\0')
        GTEST_SKIP() << "the sanitizer has allocations of its own";
    capture_builder c;
    c.pat({{1, 0x100}, {2, 0x200}});
    for (const unsigned version : {0U, 1U})
        for (const unsigned pid : {0x100U, 0x200U})
            c.pmt(pid, {.program = pid / 0x100, .version = version, .streams = {{2, pid + 1}}});
    c.pat({{1, 0x100}}, {.version = 1});
    dir.file("c.ts", c.text());
    dir.file("part", "source_tag = \"a tag too long to be kept in the text itself\";\n");
    dir.file("settings", "orv: {stream_analyzer: {enabled = true;\n@include \"" + dir.path("part") +
                             "\"\n};};\n");
    std::map<int, int> ends;
    for (const std::string options : {" -C settings -A pcr_freq=1", " -A iso=1 -a on"}) {
        const std::string whole = comparable(shell("exec orvscan" + options + " c.ts")).err;
        for (int number = 1; number <= 60; ++number) {
            const run_result run =
                comparable(shell("exec env LD_PRELOAD=" ORVSCAN_FAIL_ALLOC " FAIL_ALLOC=" +
                                 std::to_string(number) + " orvscan" + options + " c.ts"));
            ++ends[run.status];
            EXPECT_THAT(run.err, EndsWith(exit_line(run.status))) << options << number;
            if (run.status == ENOMEM) {
                EXPECT_THAT(run.err, HasSubstr("() ERROR(12): Cannot allocate memory\n")) << number;
            } else if (run.status == 0 && run.err != whole) {
                EXPECT_THAT(run.err, ContainsRegex("\\[(c.ts|a tag .*itself)\\] no memory, .* at "
                                                   "[A-Z0-9:]+\\[[1-6]\\]\n"))
                    << options << number;
            }
        }
    }
    // 2: no stream to read settings through; 22: the text of -A.
    EXPECT_THAT(ends,
                ElementsAre(Pair(0, Ge(60)), Pair(2, 2), Pair(ENOMEM, Ge(8)), Pair(EINVAL, 2)));
}

// A socket of the test's own stands at /dev/log, in a mount namespace of the run's own.
TEST_F(program, mirrors_the_access_log_to_syslog)
{
    const std::string unshare = geteuid() == 0 ? "-m" : "-rm", dev = dir.path("dev");
    const std::string mount = "mount --bind " + dev + " /dev";
    mkdir(dev.c_str(), 0700);
    dir.file("dev/null", "");
    if (run_process({"unshare", unshare, "sh", "-c", mount}).status != 0)
        GTEST_SKIP() << "mount namespaces are not to be had here";
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path{}};
    (dev + "/log").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    capture_builder c;
    c.pat({{1, 0x100}});
    c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x1b, 0x101}}});
    const std::string path = dir.file("silent.ts", c.text());
    // Not mirrored is the application log, also where it could meet the socket in a descriptor.
    for (const std::string closing : {"", " 1>&- 2>&-"}) {
        const run_result result =
            run_process({"unshare", unshare, "sh", "-c", mount + " && exec \"$@\"" + closing, "sh",
                         ORVSCAN_PROGRAM, "-Ylocal3", "-aon", path});
        char line[1024]{};
        EXPECT_GT(recv(fd, line, sizeof line - 1, 0), 0);
        EXPECT_THAT(line, MatchesRegex("<159>... .. ..:..:.. orvscan: .* ALERT PID-NDAT .*\n?"));
        if (closing.empty()) {
            EXPECT_THAT(line, HasSubstr("orvscan: " + split_lines(result.out).at(0)));
        }
        EXPECT_EQ(recv(fd, line, sizeof line, 0), -1);
    }
    close(fd);
}
