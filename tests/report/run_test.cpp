// orvreport as its users run it.

#include "report/lines.h"
#include "support/capture.h"
#include "support/lines.h"
#include "support/process.h"
#include "support/transcript.h"

#include <gmock/gmock.h>

#include <fstream>
#include <regex>
#include <sys/stat.h>

namespace {

using namespace testing;

// A folder with captures and a log, and command lines in it.
struct orvreport : TestWithParam<const char *> {
    orvreport()
    {
        capture_builder fatal, pat, idle, changing;
        fatal.null(2);
        fatal.pat({{1, 0}});
        pat.pat({{1, 0x100}});
        idle.null(300);
        changing.pat({{1, 0x100}});
        for (unsigned version = 0; version < 32; ++version)
            changing.pmt(0x100, {.version = version, .streams = {{0x1b, 0x101}}});
        changing.pmt(0x100, {.pcr_pid = 0});
        dir.file("fatal.ts", fatal.text());
        dir.file("pat.ts", pat.text());
        dir.file("idle.ts", idle.text());
        dir.file("changing.ts", changing.text()); // and fatal in the end
        dir.file("good.ts", good);
        dir.file("bad.ts", bad);
        dir.file("sync.ts", good.substr(0, PKT_SIZE * 9) + "x" + good);
        shell("cp " ORVSCAN_ROOT "/samples/two_programmes.ts two.ts; cp " ORVSCAN_ROOT
              "/tests/report/transcripts/page.sed .; "
              "grep -v '^ ' " ORVSCAN_ROOT "/tests/report/lines.txt >kinds.log");
    }
    run_result shell(const std::string &line) const { return run_shell(dir.path(), line); }
    std::string text(const std::string &name) const { return file_text(dir.path(name)); }
    // Parses outputs, and JSON Lines by the schema too. What the checker says, or its complaint.
    std::string checked(const std::string &names) const
    {
        const std::string root = ORVSCAN_ROOT, script = root + "/tests/report/check_outputs.py",
                          schema = root + "/docs/orvreport.schema.json";
        return shell("python3 '" + script + "' '" + schema + "' 2>&1 " + names).out;
    }

    const temp_dir dir;
    const std::string good = file_text(ORVSCAN_ROOT "/samples/single.ts"); // without alerts
    const std::string bad = file_text(ORVSCAN_ROOT "/samples/damaged.ts"); // with three
};

// What the group of an expression matches.
std::vector<std::string> matches(const std::string &text, const std::string &expression)
{
    const std::regex re(expression);
    return {std::sregex_token_iterator(text.begin(), text.end(), re, 1), {}};
}

TEST_P(orvreport, gives_what_the_transcript_says)
{
    replay(ORVSCAN_ROOT "/tests/report/transcripts/" + std::string(GetParam()), dir.path());
}
INSTANTIATE_TEST_SUITE_P(the, orvreport,
                         Values("captures.txt", "faults.txt", "logs.txt", "pages.txt",
                                "records.txt"));

// ---- Many captures and every output

TEST_F(orvreport, of_many_captures_each_is_judged_and_recorded)
{
    const std::string odd = "a <b> & \"c\" \x01\xff.ts";
    dir.file(odd, bad);
    EXPECT_THAT(shell("orvreport -j 3 --max all=1 --json o.jsonl --junit o.xml --html o.html "
                      "a* good.ts fatal.ts good.ts none a*"),
                ends(5,
                     AllOf(HasSubstr(odd + " (2): EXCEEDED: all 3 > 1"),
                           HasSubstr("6 captures: 2 within limits, 2 limits exceeded, "
                                     "1 not readable, 1 cut short")),
                     HasSubstr("good.ts is there already, this one is called good.ts (2)")));
    EXPECT_EQ(checked("o.jsonl o.xml"), "12 2 2\n");
    EXPECT_EQ(lines_with(text("o.jsonl"), "\"record\":\"alert\"").size(), 6U);
    EXPECT_THAT(text("o.html"),
                AllOf(HasSubstr("a &lt;b&gt; &amp; &quot;c&quot; \xef\xbf\xbd\xef\xbf\xbd.ts"),
                      Not(HasSubstr("<b>")), Not(HasSubstr("http")),
                      HasSubstr("CC-BRK PID 256: 2; PID-NDAT PID 259: 1")));

    // The record says all that the captures themselves do.
    EXPECT_THAT(shell("orvreport -q --merge o.jsonl --json m.jsonl"), ends(5, _, ""));
    EXPECT_THAT(split_lines(text("m.jsonl")),
                UnorderedElementsAreArray(split_lines(text("o.jsonl"))));
    EXPECT_EQ(shell("orvreport -q --merge o.jsonl --max all=3").status, 5);
}

// Signals for the program or its child, while the capture is a pipe that goes on.
TEST_F(orvreport, whoever_ends_it_what_is_known_is_kept)
{
    const std::string pipe = dir.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::tuple<std::vector<int>, std::vector<int>, std::string, std::string> cases[] = {
        {{}, {SIGINT}, "interrupted at packet [0-9]+; ", "not begun; no alerts"},
        {{SIGSTOP}, {SIGINT, SIGTERM}, "interrupted at packet [0-9]+; ", "not begun; no alerts"},
        {{SIGKILL},
         {},
         "ended at packet [0-9]+ by signal 9 \\(Killed\\); ",
         "no limits; no alerts"},
    };
    for (const auto &[to_child, to_program, end, next] : cases) {
        process run({ORVREPORT_PROGRAM, "-j", "1", "--junit", "/proc/self/fd/2", "--json",
                     dir.path("o.jsonl"), pipe, dir.path("good.ts")});
        std::ofstream writer(pipe); // waits for its reader
        writer << bad << std::flush;
        const std::string pid = std::to_string(run.pid());
        for (const int signo : to_child)
            kill(std::stoi(file_text("/proc/" + pid + "/task/" + pid + "/children")), signo);
        for (const int signo : to_program)
            run.send(signo);
        EXPECT_THAT(run.wait(),
                    ends(5, AllOf(ContainsRegex(pipe + ": " + end), HasSubstr("good.ts: " + next)),
                         HasSubstr("</testsuites>")));
        EXPECT_EQ(checked("o.jsonl"), "");
        EXPECT_EQ(lines_with(text("o.jsonl"), "\"summary\"").size(), 2U);
    }
}

// The same of logs and records, of which the rest is not known.
TEST_F(orvreport, what_was_not_read_of_a_log_or_record_is_told)
{
    const std::string pipe = dir.path("pipe"), record = shell("orvreport -q --json - good.ts").out;
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    dir.file("whole", record);
    for (const std::string how : {"--merge", "--log"}) {
        process run({ORVREPORT_PROGRAM, how, pipe, how, dir.path("whole")});
        std::ofstream writer(pipe); // waits for its reader
        writer << (how == "--log" ? "ALERT CC-MLR n 7 2 pkt[9]\n" : record) << std::flush;
        run.send(SIGINT);
        EXPECT_THAT(run.wait(), ends(5,
                                     AllOf(ContainsRegex("/pipe( \\[n\\])?: interrupted; "),
                                           HasSubstr("/whole: interrupted; no alerts")),
                                     _))
            << how;
    }
}

// ---- Memory

// What a run leaves behind: its words, its status and its outputs.
std::string left_by(const orvreport &test, const std::string &variables)
{
    return test
        .shell("rm -f o*; " + variables +
               " orvreport -q -j 1 --max all=9 --json o --junit o.xml --html o.html bad.ts "
               "--log kinds.log --merge r --limits limits -C settings 2>&1; echo $?; "
               "cat o* 2>&1 | sed 's/_ms\":[0-9]*//g' | cksum")
        .out;
}

TEST_F(orvreport, says_so_without_memory_and_leaves_no_half_output)
{
    if (ORVSCAN_FAIL_ALLOC[0] == '\0')
        GTEST_SKIP() << "the sanitizer has allocations of its own";
    shell("orvreport -q --json r two.ts; echo CC-BRK=1 >limits; echo 'orv: {stream_analyzer: "
          "{enabled = true;};};' >settings");
    const std::string whole = left_by(*this, ""), memory = ": Cannot allocate memory\n2\n",
                      none = shell("echo \"cat: 'o*': No such file or directory\" | cksum").out;
    size_t ended = 0;
    for (const auto &[variable, last] : {std::pair("", 40000), {"FAIL_ALLOC_FORKED=1 ", 9}})
        for (int number = 1; number <= last; number += 1 + number / 3) {
            const std::string left = left_by(
                *this, std::string(variable) + "LD_PRELOAD=" ORVSCAN_FAIL_ALLOC " FAIL_ALLOC=" +
                           std::to_string(number));
            ended += left == "orvreport: cannot go on" + memory + none ? 1U : 0U;
            EXPECT_THAT(left, AnyOf(whole, "orvreport: cannot go on" + memory + none,
                                    ContainsRegex("^orvreport: cannot write o[^:]*" + memory),
                                    "orvreport: cannot read limits from limits" + memory + none,
                                    "Failed to load [settings]\n2\n" + none, StartsWith("3\n")))
                << variable << number;
        }
    EXPECT_GT(ended, 20U);
}

// ---- The page

// In a browser: what a reader sees, with its script run.
TEST_F(orvreport, a_browser_shows_the_numbers_of_the_log)
{
    if (shell("command -v chromium").status != 0)
        GTEST_SKIP() << "chromium is not installed";
    const std::string record =
        shell("cat good.ts good.ts >long.ts; "
              "orvreport -q --json - --html p.html -A pcr_freq=79 long.ts bad.ts good.ts; "
              "echo '<script>document.querySelectorAll(\"button\")[3].click()</script>' >>p.html")
            .out;
    const run_result run =
        shell("exec chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run "
              "--disable-background-networking --disable-component-update --disable-sync "
              "--user-data-dir=profile --dump-dom \"file://$PWD/p.html\"");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(matches(run.out, "<a href=\"#c[0-9]+\">([^<]*)"), // by packets: 553, 636, 1106
                ElementsAre("good.ts", "bad.ts", "long.ts"));
    const auto counts = matches(run.out, "<rect [^>]*><title>[^<]*: (\\d+) alert");
    size_t sum = 0;
    for (const std::string &count : counts)
        sum += std::stoul(count);
    EXPECT_EQ(sum, lines_with(record, "\"record\":\"alert\"").size());
    EXPECT_GT(counts.size(), 4U);
}

// ---- The manual

TEST_F(orvreport, the_manual_and_the_completion_know_every_option_and_kind)
{
    const std::string manual = file_text(ORVSCAN_ROOT "/docs/man/orvreport.1");
    const std::string completion = file_text(ORVSCAN_ROOT "/completions/orvreport");
    const auto options = matches(shell("orvreport --help").out, "--([a-z]+)");
    EXPECT_GE(options.size(), 13U);
    for (const std::string &option : options) {
        EXPECT_THAT(manual, HasSubstr("Fl -" + option));
        EXPECT_THAT(completion, HasSubstr("--" + option));
    }
    for (size_t i = 0; i < LINE_KINDS; ++i) {
        const auto kind = static_cast<line_kind>(i);
        const std::string name(info_of(kind).name);
        EXPECT_THAT(manual, HasSubstr(".It " + name + " Ta "));
        EXPECT_THAT(completion, HasSubstr(is_alert(kind) ? name : ""));
    }
}

} // namespace
