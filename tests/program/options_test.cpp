// The command line, the settings file and the frame of a run.

#include "program.h"
#include "support/capture.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

const std::string STARTING = "@ (NRM)  FSCN  BANNER STARTING. PID=PID\n";

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

// The settings dump with other than these default lines.
std::string dump(const std::string &source, const std::string &skip = "5000",
                 const std::string &ndat = "0", const std::string &thresholds = "",
                 const std::string &reset = "30", const std::string &on = "")
{
    std::string text =
        "analyzer: \n\tsource:                [" + source + "]\n" +
        "\tskipped packets:       " + skip + "\n\tNDAT p-count:          " + ndat + "\n" +
        thresholds + "\tvalidate CC sequence:  " +
        (reset.empty() ? "no\n" : "yes\n\tCC reset threshold:    " + reset + " (ms)\n");
    for (const std::string name :
         {"sdt_ignore:   ", "misc_ignore:  ", "pdts_update:  ", "pat_pmt_pkt:  ", "pcr_update:   ",
          "cc_track:     ", "pmt_diff:     ", "pat_diff:     "})
        text += "\tT:" + name + "       " +
                (on.find(name.substr(0, name.find(':'))) != std::string::npos ? "yes\n" : "no\n");
    return text + "\taccess-log-alerts:     " + (on.find('a') == 0 ? "YES\n" : "no\n") +
           "\twrite-to-log:          " + (on.find('H') == 1 ? "NO\n" : "yes\n");
}

class program : public testing::Test {
protected:
    // A capture with one alert: a packet is missing.
    std::string capture_with_alert()
    {
        capture_builder c;
        c.pat({{1, 0x100}});
        c.pmt(0x100, {.pcr_pid = 0x101, .streams = {{0x1b, 0x101}}});
        c.payload(0x101);
        c.skip_cc(0x101);
        c.payload(0x101);
        c.write_file(dir.path("alert.ts"));
        return dir.path("alert.ts");
    }
    std::string null_packets(int count, const std::string &stray = "")
    {
        return dir.file("null.ts", null_text(count) + stray);
    }

    temp_dir dir;
};

} // namespace

TEST_F(program, help_and_version)
{
    const std::string name = ORVSCAN_PROGRAM;
    const std::string help = "BANNER\nUsage: " + name + " -s source OPTIONS fpath\n" +
                             R"( PARAMETERS:
       -S tag      = source tag
 OPTIONS:
       -C config   = load settings from orv config file
       -v          = increase verbosity
       -a on|off   = send (if on) alerts to STDOUT
       -H          = do NOT write alerts to application log
       -A o=s      = specify analyzer option/setting
       -s num      = max # packets to skip
       -Y facility = syslog(3) alerts using {facility}
       -r num      = start at record # num (1-based) [1]
       -m num      = process max=N records [0 = all]
       -k {o1}:..  = specify tracking option(s) []
       -?          = show help and exit
       -V          = output application's version

----
)" + library_info() + " [-ggdb]\n----\n\n";
    const struct {
        std::vector<std::string> args;
        int status;
        std::string err;
    } cases[] = {
        {{}, 1, help},
        {{"-s", "0", "-?", "-V"}, 1, help},
        {{"--options"}, 1, help},
        {{"-V", "-?"}, 1, "BANNER\n"},
        {{"--version"}, 1, "BANNER\n"},
        {{"-X"}, 1, name + ": invalid option -- 'X'\n" + help},
        {{"x", "-S"}, 1, name + ": option requires an argument -- 'S'\n" + help},
        {{"-vtZ"}, 2, "Expecting argument after the options.\n" + help},
    };
    for (const auto &c : cases) {
        const run_result result = orvscan(c.args);
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.err, c.err);
        EXPECT_EQ(result.out, "");
    }
    EXPECT_THAT(version_banner(), MatchesRegex("orvscan \\(MPEG-TS file analyzer\\) 0.1-10.8 "
                                               "\\(brenfold\\) regular \\[.+\\] .*; built on "
                                               "2020-08-31"));
}

TEST_F(program, refuses_values)
{
    const std::string file = null_packets(3);
    const std::string cli = "@ (ERR)  FSCN  tsan_cli_opt: invalid ";
    const std::string facility = "Invalid/un-supported syslog facility: ";
    const std::string seek = "@ (ERR)  FSCN  fseek(, ";
    const struct {
        std::vector<std::string> args;
        int status;
        std::string err;
    } cases[] = {
        {{"-s", "0"}, 34, "-S value is too small/big\n"},
        {{"--maxskip", "100001"}, 34, "-S value is too small/big\n"},
        {{"-s", "-5", "-r", "0"}, 34, "-S value is too small/big\n"},
        {{"-r", "0"}, 34, "Bad -r value (0)\n"},
        {{"--from", "abc"}, 34, "Bad -r value (0)\n"},
        {{"-r", " -7x"}, 34, "Bad -r value (-7)\n"},
        {{"-Y", "local8"}, 22, facility + "local8\n"},
        {{"-Y", "LOCAL0"}, 22, facility + "LOCAL0\n"},
        {{"--syslog", "daemon"}, 22, facility + "daemon\n"},
        {{"-A", "pcr_freq=-1"}, 22, cli + "parameter value: -1/-1\n"},
        {{"--analyze", "skipped_pkts"}, 22, cli + "option string format: skipped_pkts\n"},
        {{"-s", "0", "-C", "/none"}, 2, "Failed to load [/none]\n"},
        {{"-r", "9223372036854775807"},
         2,
         seek + "9223372036854775807, SEEK_SET) ERROR(75): Value too large for defined data "
                "type\n"},
        {{"-r", "3", "/dev/stdin"}, 2, seek + "376, SEEK_SET) ERROR(29): Illegal seek\n"},
        {{"/none"}, 0, "Cannot open [/none]: No such file or directory\n"},
    };
    for (auto [args, status, err] : cases) {
        args.push_back(file);
        const run_result result = orvscan(args);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.err, err + exit_line(status));
        EXPECT_EQ(result.out, "");
    }
}

TEST_F(program, settings_in_three_layers)
{
    const std::string file = null_packets(1);
    const std::string plain = dir.file("plain.cfg", "orv: {stream_analyzer: {enabled = true;};};");
    const std::string off = dir.file("off.cfg", "orv: {stream_analyzer: {max_ndat_pcount = 5;};};");
    const std::string full = dir.file("full.cfg", R"(orv: { stream_analyzer: { enabled = true;
        source_tag = "tag"; access_log_alerts = true; max_skipped_pkts = "2K";
        max_pdts_delta_ms = 0; max_pcr_delta_ms = 70; pcr_freq_ms = "1kb"; dump_stats_period = 9;
        max_ndat_pcount = 8; cc: { track = true; max_zreset_time = 2147484; };
        track: { sdt_ignore = true; }; pcr_update = true; pat_diff = true; }; };)");
    const std::string pdts = "\tPTS/DTS delta:         500 (ms)\n";
    const std::string limits = "\tPCR delta:             70 (ms)\n"
                               "\tPCR frequency:         1024 (ms)\n"
                               "\tdump stats every:      9 (sec)\n";
    const struct {
        std::vector<std::string> args;
        std::string dump;
    } cases[] = {
        {{}, dump(file)},
        {{"-C", plain}, dump(file, "9000", "10000", pdts)},
        {{"-C", off}, "analyzer: disabled\n"},
        {{"-A", "ON", "-C", off}, dump(file)},
        {{"-C", full}, dump("tag", "2048", "8", limits, "-2147483296", "a,pcr_update,pat_diff")},
        {{"-s", "10", "-S", "cli", "-a", "yes", "--config", full},
         dump("cli", "10", "8", limits, "-2147483296", "pcr_update,pat_diff")},
        {{"-A", "max_zreset_time=2", "-A", "pdts_delta= 500x", "-A", "foo=5", "-A", "CC_TRACK=0",
          "-s", "1", "-s", "100000"},
         dump(file, "100000", "0", pdts, "2")},
        {{"-A", "cc_track=0", "-H", "-k", "all", "--alerts", "ON", "--srctag",
          std::string(70, 's')},
         dump(std::string(63, 's'), "5000", "0", "", "",
              "aH,sdt_ignore,misc_ignore,pdts_update,pat_pmt_pkt,pcr_update")},
        {{"-k", "all", "--track", "cc_tpmt_d,sdt_ignore", "--hushlog", "-Y", "USER"},
         dump(file, "5000", "0", "", "30", " H,sdt_ignore,cc_track,pmt_diff")},
    };
    for (auto [args, expected] : cases) {
        args.push_back(file);
        args.push_back("/ignored");
        const run_result result = orvscan(args, {.env = {"SHOW_ORV_CFG="}});
        EXPECT_EQ(result.err.substr(0, result.err.find("@ (NRM)")), expected);
        EXPECT_EQ(result.status, 0);
    }
}

TEST_F(program, settings_files_that_fail)
{
    const std::string head = "orv: {stream_analyzer: {enabled = true;\n";
    const std::string parsing = "Error reading/parsing config file [FILE]: line ";
    const struct {
        std::string text;
        std::string problem;
        int rc;
    } cases[] = {
        {"", "load_config: missing orv.stream_analyzer section\n", -1},
        {head + "\n\n\n\n\n = };};", parsing + "7: syntax error\n", -1},
        {std::string(10'000'000, 'a'), parsing + "0: File too large\n", -1},
        {"\n @include \"/\"\n", parsing + "2: Is a directory\n", -1},
        {std::string(1'000'000, '('), parsing + "1: syntax error\n", -1},
        {"a = " + std::string(1'000'000, '('), parsing + "1: memory exhausted\n", -1},
        {head + "source_tag = \"" + std::string(63, 't') + "\";};};",
         "load_config_setting_str: source_tag value is too long (63), max = 63 characters.\n"
         "@ (ERR)  FSCN  tsan_load_config: failed to load config, rc=-1\n",
         -1},
        {head + "pcr_freq_ms = \"2X\";};};", "tsan_load_config: failed to load config, rc=-5\n",
         -5},
        {"directory", parsing + "0: Is a directory\n", -1},
    };
    for (const auto &c : cases) {
        std::string path = dir.file("settings", c.text);
        if (c.text == "directory")
            path = dir.path();
        std::string problem = c.problem;
        if (const size_t at = problem.find("FILE"); at != std::string::npos)
            problem.replace(at, 4, path);
        const run_result result = orvscan({"-C", path, "capture"});
        EXPECT_EQ(result.err, "@ (ERR)  FSCN  " + problem + "@ (ERR)  FSCN  load_config: [" + path +
                                  "] FAILED (" + std::to_string(c.rc) + ")\n" + exit_line(2));
        EXPECT_EQ(result.status, 2);
    }
}

TEST_F(program, counts_records)
{
    const struct {
        int packets;
        size_t stray;
        std::vector<std::string> args;
        std::string read, processed;
    } cases[] = {
        {0, 0, {}, "0/0", "0/0"},
        {0, 187, {}, "0/0", "0/0"},
        {250, 100, {}, "47000/250", "250/0"},
        {1000, 0, {"-m", "10"}, "18800/10", "11/0"},
        {1000, 0, {"--maxnum", "100"}, "37600/100", "101/0"},
        {101, 0, {"-r", "2"}, "18800/100", "100/0"},
        {101, 0, {"-r", "1000"}, "0/0", "0/0"},
    };
    for (auto [packets, stray, args, read, processed] : cases) {
        const std::string file = null_packets(packets, std::string(stray, 'G'));
        args.insert(args.end(), {"-v", file});
        const run_result result = orvscan(args);
        EXPECT_THAT(result.err, HasSubstr(read + " bytes/records read from [" + file + "]\n" +
                                          "tsan_stats BEGIN\n\tProcessed/analyzed             " +
                                          processed + "\n"));
        EXPECT_THAT(result.err, EndsWith("\ntsan_stats END\n" + exit_line(0)));
        EXPECT_EQ(lines_with(result.err, "@ (INF)  FSCN  Moved to record ").size(),
                  !args.empty() && args[0] == "-r" ? 1U : 0U);
        EXPECT_EQ(result.out, "\n");
        EXPECT_EQ(result.status, 0);
    }
    const std::string file = dir.file("bad.ts", "H" + std::string(187, 'x'));
    const run_result result = orvscan({"-vr3", "-r", "1", file});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err,
                StartsWith("@ (INF)  FSCN  fpath=[" + file + "], verbosity=1, start-rec=1, " +
                           "max-recs: 0\n" + dump(file) + STARTING + "@ (INF)  FSCN  reading [" +
                           file + "]\n"));
    EXPECT_THAT(result.err, EndsWith("tsan_stats END\n" + exit_line(2)));
}

// A socket of the test's own stands at /dev/log, in a mount namespace of the run's own.
TEST_F(program, mirrors_the_access_log_to_syslog)
{
    const std::string unshare = geteuid() == 0 ? "-m" : "-rm";
    const std::string mount = "mount --bind " + dir.path("dev") + " /dev";
    std::filesystem::create_directory(dir.path("dev"));
    if (run_process({"unshare", unshare, "sh", "-c", mount}).status != 0)
        GTEST_SKIP() << "mount namespaces are not to be had here";
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path{}};
    dir.path("dev/log").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    const run_result result =
        run_process({"unshare", unshare, "sh", "-c", mount + " && exec \"$@\"", "sh",
                     ORVSCAN_PROGRAM, "-Y", "local3", "-a", "on", capture_with_alert()});
    char buf[1024];
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    ASSERT_GT(n, 0);
    const std::string got(buf, static_cast<size_t>(n));
    EXPECT_THAT(got, MatchesRegex("<159>... .. ..:..:.. orvscan: .* ALERT CC-BRK .*"));
    EXPECT_THAT(got, HasSubstr("orvscan: " + split_lines(result.out).at(0)));
    EXPECT_EQ(recv(fd, buf, sizeof buf, 0), -1); // the application log is not mirrored
    close(fd);
}

TEST_F(program, reads_pipes_and_stops_on_signals)
{
    capture_builder c;
    c.null(99);
    c.pat({{1, 0x100}});
    EXPECT_THAT(orvscan({"-v", "/dev/stdin"}, {.input = c.text() + null_text(150) + "G"}).err,
                HasSubstr("  47000/250 bytes/records read from [/dev/stdin]\n"));
    const std::string fifo = dir.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const int signo : {0, SIGINT, SIGTERM}) {
        process run(orvscan_args({"-v", fifo}));
        std::ofstream feed(fifo, std::ios::binary);
        feed << c.text() << std::flush;
        ASSERT_TRUE(run.says("using PAT"));
        if (signo != 0)
            run.send(signo);
        feed << null_text(150) << std::flush;
        feed.close();
        const run_result result = comparable(run.wait());
        EXPECT_EQ(result.status, 0);
        const std::string records = signo == 0 ? "250" : "100";
        EXPECT_THAT(result.err, HasSubstr("  47000/" + records + " bytes/records read"));
        EXPECT_THAT(result.err, EndsWith("\ntsan_stats END\n" + exit_line(0)));
        const std::string word = signo == 0 ? "" : "\nSIG(" + std::to_string(signo) + ")\n";
        EXPECT_EQ(result.out, word + "\n");
    }
}
