// Reading captures of every kind, and the surroundings of a run.

#include "program.h"
#include "tsa/capture.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace testing;

TEST_F(program, counts_records)
{
    const struct {
        int packets;
        std::vector<std::string> args;
        std::string read, processed;
    } cases[] = {{0, {}, "0/0", "0/0"},
                 {250, {}, "47000/250", "250/0"},
                 {1000, {"-m", "10"}, "18800/10", "11/0"},
                 {1000, {"-m", "100"}, "37600/100", "101/0"},
                 {101, {"-r", "2"}, "18800/100", "100/0"},
                 {101, {"-r", "1000"}, "0/0", "0/0"}};
    for (auto [packets, args, read, processed] : cases) {
        dir.file("null.ts", null_text(packets) + std::string(187, 'G'));
        args.insert(args.end(), {"-v", file});
        const run_result result = orvscan(args);
        EXPECT_THAT(result.err, HasSubstr("  " + read + " bytes/records read from [" + file +
                                          "]\ntsan_stats BEGIN\n\tProcessed/analyzed             " +
                                          processed + "\n"));
        EXPECT_THAT(result.err, EndsWith("\ntsan_stats END\n" + exit_line(0)));
        EXPECT_EQ(result.out, "\n");
    }
    const std::string no_packet = dir.file("no.ts", std::string(188, 'H'));
    EXPECT_THAT(orvscan({no_packet}).err, EndsWith("tsan_stats END\n" + exit_line(2)));
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
