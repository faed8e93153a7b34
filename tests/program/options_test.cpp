// The command line, the settings file and the frame of a run.

#include "program.h"
#include "support/capture.h"

#include <gmock/gmock.h>

#include <fstream>
#include <regex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace testing;

namespace {

std::string exit_line(int status)
{
    return "@ (NRM)  FSCN  BANNER EXIT(" + std::to_string(status) + "). PID=PID\n";
}

std::string null_text(int count)
{
    capture_builder c;
    c.null(count);
    return c.text();
}

struct program : Test {
    temp_dir dir;
    std::string file = dir.file("null.ts", null_text(3));
};

} // namespace

TEST_F(program, refuses_what_it_cannot_do)
{
    const std::string name = ORVSCAN_PROGRAM;
    const std::string help = "BANNER\nUsage: " + name + " -s source OPTIONS fpath\n PARAMETERS:\n";
    const std::string cli = "@ (ERR)  FSCN  tsan_cli_opt: invalid ";
    const std::string seek = "@ (ERR)  FSCN  fseek(, ";
    const struct {
        std::vector<std::string> args;
        int status;
        std::string err;
    } cases[] = {
        {{"-s", "0", "-?", "-V"}, 1, help},
        {{"-V", "-?"}, 1, "BANNER\n"},
        {{"-X"}, 1, name + ": invalid option -- 'X'\n" + help},
        {{"-vtZ"}, 2, "Expecting argument after the options.\n" + help},
        {{"--maxskip", "100001", file}, 34, "-S value is too small/big\n" + exit_line(34)},
        {{"--from", "abc", file}, 34, "Bad -r value (0)\n" + exit_line(34)},
        {{"-Y", "local8", file}, 22, "Invalid/un-supported syslog facility: local8\n"},
        {{"-A", "pcr_freq=-1", file}, 22, cli + "parameter value: -1/-1\n" + exit_line(22)},
        {{"--analyze", "x", file}, 22, cli + "option string format: x\n" + exit_line(22)},
        {{"-s", "0", "-C", "/none"}, 2, "Failed to load [/none]\n" + exit_line(2)},
        {{"-r", "9223372036854775807", file}, 2, seek + "9223372036854775807, SEEK_SET) ERROR(75"},
        {{"-r", "3", "/dev/stdin"}, 2, seek + "376, SEEK_SET) ERROR(29): Illegal seek\n"},
        {{"/none"}, 0, "Cannot open [/none]: No such file or directory\n" + exit_line(0)},
    };
    for (const auto &c : cases) {
        const run_result result = orvscan(c.args);
        EXPECT_EQ(result.status, c.status) << c.err;
        EXPECT_THAT(result.err, StartsWith(c.err));
        EXPECT_EQ(result.out, "");
    }
}

TEST_F(program, settings_in_three_layers)
{
    const std::string off = dir.file("off", "orv: {stream_analyzer: {max_ndat_pcount = 5;};};");
    const std::string plain = dir.file("plain", "orv: {stream_analyzer: {enabled = true;};};");
    const std::string full = dir.file("full", R"(orv: { stream_analyzer: { enabled = true;
        source_tag = "tag"; access_log_alerts = true; max_skipped_pkts = "2K";
        max_pdts_delta_ms = 0; max_pcr_delta_ms = 70; pcr_freq_ms = "1kb"; dump_stats_period = true;
        max_ndat_pcount = 8; cc: { track = true; max_zreset_time = 2147484; };
        track: { sdt_ignore = true; }; pcr_update = true; pat_diff = true; }; };)");
    // The values that a dump shows.
    const std::string none = " no no no no no no no no no yes ";
    const struct {
        std::vector<std::string> args;
        std::string values;
    } cases[] = {
        {{}, "[" + file + "] 5000 0 yes 30 (ms)" + none},
        {{"-C", plain}, "[" + file + "] 9000 10000 500 (ms) yes 30 (ms)" + none},
        {{"-C", off}, "analyzer: disabled "},
        {{"-C", full},
         "[tag] 2048 8 70 (ms) 1024 (ms) yes -2147483296 (ms) no no no no yes no "
         "no yes YES yes "},
        {{"-s", "10", "-S", "cli", "-a", "yes", "-k", "cc_tpmt_d", "-A", "max_zreset_time=2", "-A",
          "pdts_delta= 500x", "-A", "foo=5", "--config", full},
         "[cli] 10 8 500 (ms) 70 (ms) 1024 (ms) yes 2 (ms) no no no no no yes yes yes no "
         "yes "},
        {{"-A", "ON", "-A", "cc_track=0", "-H", "--track", "all", "--alerts", "ON", "-S",
          std::string(70, 's'), "-C", off},
         "[" + std::string(63, 's') + "] 5000 0 no yes yes yes yes yes no no no YES NO "},
    };
    setenv("SHOW_ORV_CFG", "", 1);
    for (auto [args, values] : cases) {
        args.insert(args.end(), {file, "/ignored"});
        const std::string err = orvscan(args).err, dump = err.substr(0, err.find('@'));
        std::string found =
            std::regex_replace(dump, std::regex("analyzer: \n|\t[^\\[\n]*:  +"), "");
        replace_all(&found, "\n", " ");
        EXPECT_EQ(found, values);
    }
    unsetenv("SHOW_ORV_CFG");
}

TEST_F(program, settings_files_that_fail)
{
    const std::string head = "orv: {stream_analyzer: {enabled = true;\n";
    const std::string parsing = "Error reading/parsing config file [FILE]: line ";
    const std::pair<std::string, std::string> cases[] = {
        {"", "load_config: missing orv.stream_analyzer section\n"},
        {head + "\n\n\n\n\n = };};", parsing + "7: syntax error\n"},
        {std::string(10'000'000, 'a'), parsing + "0: File too large\n"},
        {"\n @include \"/\"\n", parsing + "2: Is a directory\n"},
        {"a = " + std::string(1'000'000, '('), parsing + "1: memory exhausted\n"},
        {head + "source_tag = \"" + std::string(63, 't') + "\";};};",
         "load_config_setting_str: source_tag value is too long (63), max = 63 characters.\n"},
        {head + "pcr_freq_ms = \"" + std::string(32, '1') + "\";};};",
         "load_config_setting_str: pcr_freq_ms value is too long (32), max = 32 characters.\n"},
        {head + "pcr_freq_ms = \"2X\";};};", "tsan_load_config: failed to load config, rc=-5\n"},
    };
    for (const auto &[text, problem] : cases) {
        const std::string path = dir.file("settings", text);
        run_result result = orvscan({"-C", path, file});
        replace_all(&result.err, path, "FILE");
        EXPECT_THAT(result.err, StartsWith("@ (ERR)  FSCN  " + problem + "@ (ERR)  FSCN  "));
        EXPECT_THAT(result.err, HasSubstr("  load_config: [FILE] FAILED (-"));
        EXPECT_THAT(result.err, EndsWith(")\n" + exit_line(2)));
    }
}

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

// A socket of the test's own stands at /dev/log, in a mount namespace of the run's own.
TEST_F(program, mirrors_the_access_log_to_syslog)
{
    const std::string unshare = geteuid() == 0 ? "-m" : "-rm", dev = dir.path("dev");
    const std::string mount = "mount --bind " + dev + " /dev";
    mkdir(dev.c_str(), 0700);
    if (run_process({"unshare", unshare, "sh", "-c", mount}).status != 0)
        GTEST_SKIP() << "mount namespaces are not to be had here";
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path{}};
    (dev + "/log").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    capture_builder c;
    c.pat({{1, 0x100}});
    c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x1b, 0x101}}});
    const run_result result =
        run_process({"unshare", unshare, "sh", "-c", mount + " && exec \"$@\"", "sh",
                     ORVSCAN_PROGRAM, "-Ylocal3", "-aon", dir.file("silent.ts", c.text())});
    char line[1024]{};
    EXPECT_GT(recv(fd, line, sizeof line - 1, 0), 0);
    EXPECT_THAT(line, MatchesRegex("<159>... .. ..:..:.. orvscan: .* ALERT PID-NDAT .*\n?"));
    EXPECT_THAT(line, HasSubstr("orvscan: " + split_lines(result.out).at(0)));
    EXPECT_EQ(recv(fd, line, sizeof line, 0), -1); // the application log is not mirrored
    close(fd);
}
