// Reading captures of every kind, and the surroundings of a run.

#include "program.h"
#include "tsa/capture.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <fstream>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

using namespace testing;

TEST_F(program, counts_records)
{
    // Packets, and good ones in front when one is bad; what was read and processed; the status.
    const std::tuple<int, int, std::string, std::string, std::string, int> cases[] = {
        {0, -1, "", "0/0", "0/0", 0},
        {250, -1, "", "47000/250", "250/0", 0},
        {1000, -1, "-m 10", "18800/10", "11/0", 0},
        {1000, -1, "-m 100", "37600/100", "101/0", 0},
        {101, -1, "-r 2", "18800/100", "100/0", 0},
        {101, -1, "-r 1000", "0/0", "0/0", 0},
        {350, 149, "", "37600/149", "150/0", 2},
        {1, 0, "", "188/0", "1/0", 2},
    };
    for (const auto &[packets, bad, args, read, processed, status] : cases) {
        std::string text = null_text(packets) + std::string(187, 'G');
        if (bad >= 0)
            text[static_cast<size_t>(bad) * PKT_SIZE] = 'H';
        dir.file("null.ts", text);
        const run_result result = comparable(shell("exec orvscan -v " + args + " null.ts"));
        EXPECT_THAT(result.err, HasSubstr("  " + read +
                                          " bytes/records read from [null.ts]\n"
                                          "tsan_stats BEGIN\n\tProcessed/analyzed             " +
                                          processed + "\n"));
        EXPECT_THAT(result.err, EndsWith("\ntsan_stats END\n" + exit_line(status)));
        EXPECT_EQ(result.out, "\n");
    }
}

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

TEST_F(program, reports_a_read_that_fails)
{
    EXPECT_THAT(comparable(shell("exec orvscan -v .")).err,
                AllOf(HasSubstr("(ERR)  FSCN  read([.]) ERROR(21): Is a directory\n"),
                      HasSubstr("  0/0 bytes/records read from"),
                      EndsWith("tsan_stats END\n" + exit_line(0))));
}

// Each of the standard descriptors open or closed.
TEST_F(program, runs_without_standard_descriptors)
{
    const run_result whole = orvscan({"-aon", file});
    for (const std::string closing :
         {"0<&-", "1>&-", "2>&-", "0<&- 1>&-", "0<&- 2>&-", "1>&- 2>&-", "0<&- 1>&- 2>&-"}) {
        const run_result result = comparable(shell("exec orvscan -aon $PWD/null.ts " + closing));
        EXPECT_THAT(result, ends(0, closing.find('1') == std::string::npos ? whole.out : "",
                                 closing.find('2') == std::string::npos ? whole.err : ""))
            << closing;
    }
}

TEST_F(program, goes_on_when_nothing_can_be_written)
{
    for (const std::string redirection : {">/dev/full", "2>/dev/full", ">/dev/full 2>&1"})
        EXPECT_EQ(shell("exec orvscan -aon null.ts " + redirection).status, 0) << redirection;
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
                EXPECT_THAT(run.err, HasSubstr(" no memory, ")) << options << number;
            }
        }
    }
    // 2: no stream to read settings through; 22: the text of -A.
    EXPECT_THAT(ends,
                ElementsAre(Pair(0, Ge(60)), Pair(2, 2), Pair(ENOMEM, Ge(8)), Pair(EINVAL, 2)));
}
