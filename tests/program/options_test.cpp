// The command line.

#include "program.h"

#include <gmock/gmock.h>

#include <regex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace testing;

TEST_F(program, refuses_what_it_cannot_do)
{
    const std::string help = "BANNER\nUsage: orvscan -s source OPTIONS fpath\n PARAMETERS:\n";
    const std::string cli = "@ (ERR)  FSCN  tsan_cli_opt: invalid ";
    const std::string seek = "@ (ERR)  FSCN  fseek(, ";
    const std::tuple<std::string, int, std::string> cases[] = {
        {"-s 0 '-?' -V", 1, help},
        {"-V '-?'", 1, "BANNER\n"},
        {"-X", 1, "orvscan: invalid option -- 'X'\n" + help},
        {"-vtZ", 2, "Expecting argument after the options.\n" + help},
        {"--maxskip 100001 null.ts", 34, "-S value is too small/big\n" + exit_line(34)},
        {"--from abc null.ts", 34, "Bad -r value (0)\n" + exit_line(34)},
        {"-Y local8 null.ts", 22, "Invalid/un-supported syslog facility: local8\n"},
        {"-A pcr_freq=-1 null.ts", 22, cli + "parameter value: -1/-1\n" + exit_line(22)},
        {"--analyze x null.ts", 22, cli + "option string format: x\n" + exit_line(22)},
        {"-s 0 -C /none", 2, "Failed to load [/none]\n" + exit_line(2)},
        {"-r 9223372036854775807 null.ts", 2, seek + "9223372036854775807, SEEK_SET) ERROR(75"},
        {"-r 3 /dev/stdin", 2, seek + "376, SEEK_SET) ERROR(29): Illegal seek\n"},
        {"/none", 0, "Cannot open [/none]: No such file or directory\n" + exit_line(0)},
    };
    for (const auto &[args, status, err] : cases)
        EXPECT_THAT(comparable(shell("exec orvscan " + args)), ends(status, "", StartsWith(err)));
}

TEST_F(program, settings_in_three_layers)
{
    dir.file("off", "orv: {stream_analyzer: {max_ndat_pcount = 5;};};");
    dir.file("plain", "orv: {stream_analyzer: {enabled = true;};};");
    dir.file("full", R"(orv: { stream_analyzer: { enabled = true;
        source_tag = "tag"; access_log_alerts = true; max_skipped_pkts = "2K";
        max_pdts_delta_ms = 0; max_pcr_delta_ms = 70; pcr_freq_ms = "1kb"; dump_stats_period = true;
        max_ndat_pcount = 8; cc: { track = true; max_zreset_time = 2147484; };
        track: { sdt_ignore = true; }; pcr_update = true; pat_diff = true; }; };)");
    // The values that a dump shows.
    const std::string none = " no no no no no no no no no yes ", long_tag(70, 's');
    const std::pair<std::string, std::string> cases[] = {
        {"", "[null.ts] 5000 0 yes 30 (ms)" + none},
        {"-C plain", "[null.ts] 9000 10000 500 (ms) yes 30 (ms)" + none},
        {"-C off", "analyzer: disabled "},
        {"-C full", "[tag] 2048 8 70 (ms) 1024 (ms) yes -2147483296 (ms) no no no no yes no "
                    "no yes YES yes "},
        {"-s 10 -S cli -a yes -k cc_tpmt_d -A max_zreset_time=2 -A 'pdts_delta= 500x' -A foo=5 "
         "--config full",
         "[cli] 10 8 500 (ms) 70 (ms) 1024 (ms) yes 2 (ms) no no no no no yes yes yes no yes "},
        {"-A ON -A cc_track=0 -H --track all --alerts ON -C off -S " + long_tag,
         "[" + long_tag.substr(7) + "] 5000 0 no yes yes yes yes yes no no no YES NO "},
    };
    for (const auto &[args, values] : cases) {
        const std::string line = "SHOW_ORV_CFG= orvscan " + args + " null.ts /ignored";
        const std::string err = unstamped(shell(line).err), dump = err.substr(0, err.find('@'));
        std::string found =
            std::regex_replace(dump, std::regex("analyzer: \n|\t[^\\[\n]*:  +"), "");
        replace_all(&found, "\n", " ");
        EXPECT_EQ(found, values);
    }
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
