// orvreport as its users run it.

#include "report/lines.h"
#include "support/capture.h"
#include "support/lines.h"
#include "support/process.h"

#include <gmock/gmock.h>

#include <fstream>
#include <regex>
#include <sys/stat.h>

namespace {

using namespace testing;

// A folder with captures, and command lines in it.
struct orvreport : Test {
    orvreport()
    {
        capture_builder c;
        c.null(2);
        c.pat({{1, 0}});
        dir.file("fatal.ts", c.text());
        dir.file("good.ts", good);
        dir.file("bad.ts", bad);
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

// ---- Verdict

TEST_F(orvreport, every_end_of_a_capture_has_its_status_and_words)
{
    capture_builder pat, idle;
    pat.pat({{1, 0x100}});
    idle.null(300);
    dir.file("empty", "");
    dir.file("fragment", "G");
    dir.file("pat", pat.text());
    dir.file("idle", idle.text());
    dir.file("sync", good.substr(0, PKT_SIZE * 9) + "x" + good);
    const std::tuple<std::string, int, std::string> cases[] = {
        {"good.ts", 0, "no limits; no alerts"},
        {"--max all=0 good.ts", 0, "within limits; no alerts"},
        {"--max CC-BRK=2 --max all/256=2 bad.ts", 0,
         "within limits; 3 alerts (2 CC-BRK, 1 PID-NDAT)"},
        {"--max CC-BRK=0 --max all=1 --max PID-NDAT/259=0 bad.ts", 1,
         "EXCEEDED: CC-BRK 2 > 0, all 3 > 1, PID-NDAT/259 1 > 0; 3 alerts"},
        {"missing", 3, "cannot be read: No such file or directory; no alerts"},
        {".", 3, "cannot be read: Is a directory; no alerts"},
        {"--max all=0 empty", 4, "no programme; no alerts"},
        {"fragment", 4, "no programme; no alerts"},
        {"pat", 4, "no stream packet; no alerts"},
        {"sync", 5, "lost sync at packet 10; 1 alert (1 PID-NDAT)"},
        {"-s 200 idle", 5, "idle: nothing to analyse up to packet 200; no alerts"},
        {"fatal.ts", 5, "ended at packet 3 by invariant `tc->pmt_pid[tc->nprogs]' broken; no al"},
    };
    for (const auto &[args, status, words] : cases) {
        const std::string capture = args.substr(args.rfind(' ') + 1);
        EXPECT_THAT(shell("orvreport " + args),
                    ends(status, HasSubstr(capture + ": " + words), ""));
    }
}

TEST_F(orvreport, a_command_line_that_is_wrong_is_told_and_nothing_is_begun)
{
    dir.file("limits", "# ours\nCC-BRK = 1\n\nCC-BRQ=2 # typo\n");
    const std::pair<std::string, std::string> cases[] = {
        {"", "no capture, log or record is named"},
        {"--max CC-BRQ=0 good.ts", "names an unknown kind; known are all, damaged, CC-BRK"},
        {"--limits limits good.ts", "limits, line 4: limit \"CC-BRQ=2\" names an unknown"},
        {"--limits none good.ts", "cannot read limits from"},
        {"-A pcr_freq=-5 good.ts", "invalid analyzer setting \"pcr_freq=-5\""},
        {"-C none good.ts", "Failed to load ["},
        {"-j 0 good.ts", "--jobs"},
        {"--json - --html - good.ts", "only one output can be standard output"},
        {"--frob good.ts", "--frob"},
    };
    for (const auto &[args, words] : cases)
        EXPECT_THAT(shell("orvreport " + args), ends(2, "", HasSubstr(words))) << args;
    EXPECT_THAT(shell("orvreport -V").out, HasSubstr("orvreport 0."));
}

TEST_F(orvreport, settings_are_those_of_the_analyzer)
{
    dir.file("s", "orv: {stream_analyzer: {enabled = true; pcr_freq_ms = 79;};};");
    const auto alerts = [this](const std::string &args) {
        const run_result run = shell("orvreport -q --json - good.ts " + args);
        return lines_with(run.out, "\"PCR-FREQ\",\"programme").size();
    };
    EXPECT_EQ(alerts(""), 0U);
    EXPECT_GT(alerts("-C s"), 10U);
    EXPECT_EQ(alerts("-C s"), alerts("-A pcr_freq=79"));
    EXPECT_EQ(alerts("-C s -A pcr_freq=80"), 0U);
}

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

TEST_F(orvreport, gnu_parallel_and_merge_give_the_verdict_of_one_run)
{
    if (shell("command -v parallel").status != 0)
        GTEST_SKIP() << "parallel is not installed";
    EXPECT_THAT(
        shell("ls *.ts | parallel --will-cite orvreport -q --max all=1 --json {}.jsonl {}; "
              "orvreport --merge *.jsonl"),
        ends(5,
             AllOf(HasSubstr("bad.ts: EXCEEDED: all 3 > 1; 3 alerts (2 CC-BRK, 1 PID-NDAT)"),
                   HasSubstr("3 captures: 1 within limits, 1 limits exceeded, 1 cut short\n")),
             _));
}

TEST_F(orvreport, what_was_not_measured_is_null)
{
    const std::string record = shell("orvreport -q --json - bad.ts").out;
    EXPECT_THAT(record, HasSubstr("\"checks\":{\"av_distance_ms\":null,"));
    EXPECT_THAT(record, HasSubstr("\"pcr_interval\":null"));
    EXPECT_THAT(record, HasSubstr("\"tag\":\"0:0[286]:(pcr=156600)+11\""));
    EXPECT_THAT(record, HasSubstr("\"packet\":286,\"pcr_ticks\":156600,\"packets_since_pcr\":11,"
                                  "\"stream_time_s\":0.0,\"time\":null"));
}

// Stream time goes on where the PCR wraps.
TEST_F(orvreport, stream_time_counts_from_the_first_pcr_over_the_wrap)
{
    std::string log;
    for (const char *tag : {"0:0[9]:(pcr=8589844592)+1", "0:0[9]:(pcr=8589889592)+1",
                            "0:0[9]:(pcr=90000)+1", "1:0[9]:(pcr=5)+1", "pkt[10]"})
        log.append("ALERT CC-MLR n 7 2 ").append(tag).append("\n");
    dir.file("log", log);
    EXPECT_THAT(matches(shell("orvreport -q --json - --log log").out, "\"stream_time_s\":([^,]*)"),
                ElementsAre("0.0", "0.5", "2.0", "0.0", "null"));
}

TEST_F(orvreport, an_output_that_cannot_be_written_spoils_nothing_else)
{
    shell("mkdir folder; ln -s kept.html link; echo old >kept.html");
    EXPECT_THAT(shell("orvreport --json none/o --junit /dev/full --html kept.html good.ts"),
                ends(2, HasSubstr("no limits; no alerts"),
                     AllOf(HasSubstr("cannot write none/o: No such file"),
                           HasSubstr("cannot write /dev/full: No space left on device"))));
    EXPECT_THAT(text("kept.html"), HasSubstr("<!DOCTYPE html>"));
    EXPECT_EQ(shell("orvreport --json folder --junit link good.ts").status, 2);
    EXPECT_THAT(text("kept.html"), HasSubstr("<testsuites"));
    EXPECT_EQ(shell("ls").out, "bad.ts\nfatal.ts\nfolder\ngood.ts\nkept.html\nlink\n");
}

TEST_F(orvreport, the_user_may_end_it_and_keeps_what_is_known)
{
    const std::string endless = dir.path("pipe");
    ASSERT_EQ(mkfifo(endless.c_str(), 0600), 0);
    process run({ORVREPORT_PROGRAM, "-j", "1", "--junit", "/dev/stderr", "--json",
                 dir.path("o.jsonl"), endless, dir.path("good.ts")});
    std::ofstream writer(endless); // waits for its reader
    writer << bad << std::flush;
    run.send(SIGINT);
    EXPECT_THAT(run.wait(), ends(5,
                                 AllOf(HasSubstr(endless + ": interrupted at packet "),
                                       HasSubstr("good.ts: not begun; no alerts")),
                                 _));
    EXPECT_EQ(checked("o.jsonl"), "");
}

// ---- Logs

TEST_F(orvreport, a_log_gives_the_verdict_of_its_capture)
{
    EXPECT_THAT(
        shell("orvscan -S 'a news tag' -a on bad.ts >log 2>/dev/null; "
              "orvreport --log log --max CC-BRK=0"),
        ends(1, "log [a news tag]: EXCEEDED: CC-BRK 2 > 0; 3 alerts (2 CC-BRK, 1 PID-NDAT)\n", ""));
    EXPECT_EQ(shell("orvscan -a on good.ts >log; orvreport --log log --max all=0").status, 0);
}

TEST_F(orvreport, logs_of_every_sort_have_their_status)
{
    const std::string line = "2026-11-21 11:50:37.152091 UTC 25526  ALERT CC-MLR n 7 2 pkt[9]\n";
    const std::string torn = line + line.substr(0, 60);
    const std::string stats = "STAT GLOBAL n 1 1 0 0 0 3\nSTAT ALERT-count n 0 0 0 0 0 4 0 0\n";
    // Text, limit; status, standard output and error.
    const std::tuple<std::string, std::string, int, std::string, std::string> cases[] = {
        {line + std::string(9999, '\0') + torn, "", 0,
         "[n]: no limits; 2 alerts (2 CC-MLR); 2 damaged lines",
         "has 2 damaged lines, the first is line 2"},
        {torn, "--max damaged=0", 1, "EXCEEDED: damaged 1 > 0", "line 2"},
        {torn, "--max all=1", 1, "EXCEEDED: all 2 > 1", ""},
        {line + std::string(10'000'000, 'x') + "\n", "", 0, "1 damaged line", "line 2"},
        {"", "", 4, "no line of an analyzer in it", ""},
        {good, "", 4, "no line of an analyzer in it", "damaged"},
        {"STAT GLOBAL n 1 0 0 0 0 0\n", "", 4, "[n]: no programme", ""},
        // A host that logs no alerts is judged by its counters.
        {stats, "--max CC-BRK=3", 1, "CC-BRK 4 > 3; 7 alerts (4 CC-BRK, 3 CC-MLR)", ""},
        {stats + line, "--max CC-BRK=3", 0, "within limits; 1 alert (1 CC-MLR)", ""},
        {line + "SIG(2)\n", "", 0, "1 alert", "has 1 line of other kinds, left alone"},
    };
    for (const auto &[text, limit, status, out, err] : cases) {
        dir.file("log", text);
        EXPECT_THAT(shell("orvreport --log log " + limit),
                    ends(status, HasSubstr(out), HasSubstr(err)));
    }
}

TEST_F(orvreport, records_that_are_broken_are_told)
{
    const std::string record = shell("orvreport -q --json - bad.ts").out;
    dir.file("torn", record.substr(0, record.size() - 40));
    EXPECT_THAT(shell("orvreport --merge torn"),
                ends(5, HasSubstr("bad.ts: its record has no end; 3 alerts"),
                     HasSubstr("torn has 1 line that is no record, the first is line 4")));
    for (const std::string broken :
         {"", "{\"record\":", "[[[[", "{\"record\":\"alert\",\"capture\":1}"}) {
        dir.file("r", broken);
        EXPECT_EQ(shell("orvreport --merge r").status, broken.empty() ? 4 : 3) << broken;
    }
}

// ---- Pictures

TEST_F(orvreport, a_page_of_many_alerts_stays_small_and_counts_them_all)
{
    std::string log;
    for (unsigned i = 0; i < 200000; ++i) {
        const auto number = [](unsigned n) { return std::to_string(n); };
        log += "ALERT AV-DELTA+ n pts 256 5 " + number(256 + i % 40) + " 7 " + number(i % 977) +
               " [0:1[" + number(i) + "]:(pcr=" + number(i * 300) + ")+" + number(i % 7) + "]\n";
    }
    dir.file("log", log);
    EXPECT_EQ(shell("orvreport -q --html p.html --log log").status, 0);
    const std::string page = text("p.html");
    EXPECT_LT(page.size(), 1'000'000U);
    EXPECT_THAT(page, HasSubstr("<td class=\"n\">256</td><td class=\"n\">5000</td>"));
    EXPECT_THAT(page, HasSubstr("<td class=\"n\" data-key=\"200000\">200000</td>"));
    EXPECT_THAT(page, HasSubstr(", largest 976 ms"));
}

// In a browser: what a reader sees, with its script run.
TEST_F(orvreport, a_browser_shows_the_numbers_of_the_log)
{
    if (shell("command -v chromium").status != 0)
        GTEST_SKIP() << "chromium is not installed";
    const std::string record =
        shell("orvreport -q --json - --html p.html -A pcr_freq=79 bad.ts good.ts").out;
    const run_result run =
        shell("exec chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run "
              "--disable-background-networking --disable-component-update --disable-sync "
              "--user-data-dir=profile --dump-dom \"file://$PWD/p.html\"");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.out, HasSubstr("<button>Alerts</button>")); // the script ran
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
