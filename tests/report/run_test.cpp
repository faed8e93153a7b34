// orvreport as its users run it.

#include "report/lines.h"
#include "support/capture.h"
#include "support/lines.h"
#include "support/process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sys/stat.h>
#include <thread>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

run_result orvreport(std::vector<std::string> args)
{
    args.insert(args.begin(), ORVREPORT_PROGRAM);
    return run_process(args);
}

std::string sample(const std::string &name)
{
    return file_text(ORVSCAN_ROOT "/samples/" + name + ".ts");
}

// The sample of two programmes without PID 259 and without record 303: a CC-BRK and a PID-NDAT.
std::string damaged_sample()
{
    const std::string whole = sample("two_programmes");
    std::string text;
    for (size_t record = 1; record * PKT_SIZE <= whole.size(); ++record) {
        const std::string pkt = whole.substr((record - 1) * PKT_SIZE, PKT_SIZE);
        if (((pkt[1] & 0x1f) << 8 | (pkt[2] & 0xff)) != 259 && record != 303)
            text += pkt;
    }
    return text;
}

// A capture that the engine cannot go on with: its PAT lists PID 0.
std::string fatal_capture()
{
    capture_builder c;
    c.null(2);
    c.pat({{1, 0}});
    return c.text();
}

std::string null_packets(int count)
{
    capture_builder c;
    c.null(count);
    return c.text();
}

// Parses outputs, and JSON Lines by the schema too. Returns what the checker says, or its
// complaint.
std::string checked(std::vector<std::string> files)
{
    files.insert(files.begin(), {"python3", ORVSCAN_ROOT "/tests/report/check_outputs.py",
                                 ORVSCAN_ROOT "/docs/orvreport.schema.json"});
    const run_result run = run_process(files);
    return run.status == 0 ? run.out : run.err;
}

std::vector<std::string> sorted_lines(const std::string &path)
{
    std::vector<std::string> lines = split_lines(file_text(path));
    std::sort(lines.begin(), lines.end());
    return lines;
}

// ---- Verdict

TEST(orvreport, every_end_of_a_capture_has_its_status_and_words)
{
    const temp_dir dir;
    const std::string good = sample("single");
    const std::string pat_only = [] {
        capture_builder c;
        c.pat({{1, 0x100}});
        return c.text();
    }();
    const struct {
        std::string path;
        std::vector<std::string> args;
        int status;
        std::string words;
    } cases[] = {
        {dir.file("good", good), {}, 0, "no limits; no alerts"},
        {dir.file("good", good), {"--max", "all=0"}, 0, "within limits; no alerts"},
        {dir.file("bad", damaged_sample()),
         {"--max", "CC-BRK=1", "--max", "all/256=1"},
         0,
         "within limits; 2 alerts (1 CC-BRK, 1 PID-NDAT)"},
        {dir.file("bad", damaged_sample()),
         {"--max", "CC-BRK=0", "--max", "all=1", "--max", "PID-NDAT/259=0"},
         1,
         "EXCEEDED: CC-BRK 1 > 0, all 2 > 1, PID-NDAT/259 1 > 0; 2 alerts"},
        {dir.path("missing"), {}, 3, "cannot be read: No such file or directory; no alerts"},
        {dir.path(), {}, 3, "cannot be read: Is a directory; no alerts"},
        {dir.file("empty", ""), {"--max", "all=0"}, 4, "no programme; no alerts"},
        {dir.file("fragment", "G"), {}, 4, "no programme; no alerts"},
        {dir.file("pat", pat_only), {}, 4, "no stream packet; no alerts"},
        {dir.file("sync", good.substr(0, PKT_SIZE * 9) + "x" + good),
         {},
         5,
         "lost sync at packet 10; 1 alert (1 PID-NDAT)"},
        {dir.file("idle", null_packets(300)),
         {"-s", "200"},
         5,
         "idle: nothing to analyse up to packet 200; no alerts"},
        {dir.file("fatal", fatal_capture()),
         {},
         5,
         "ended at packet 3 by invariant `tc->pmt_pid[tc->nprogs]' broken; no alerts"},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = c.args;
        args.push_back(c.path);
        const run_result run = orvreport(args);
        EXPECT_EQ(run.status, c.status) << c.path;
        EXPECT_THAT(run.out, HasSubstr(c.path + ": " + c.words)) << c.path;
        EXPECT_EQ(run.err, "") << c.path;
    }
}

TEST(orvreport, a_command_line_that_is_wrong_is_told_and_nothing_is_begun)
{
    const temp_dir dir;
    const std::string limits = dir.file("limits", "# ours\nCC-BRK = 1\n\nCC-BRQ=2 # typo\n");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "no capture, log or record is named"},
        {{"--max", "CC-BRQ=0", "x.ts"}, "names an unknown kind; known are all, damaged, CC-BRK"},
        {{"--limits", limits, "x.ts"}, limits + ", line 4: limit \"CC-BRQ=2\" names an unknown"},
        {{"--limits", dir.path("none"), "x.ts"}, "cannot read limits from"},
        {{"-A", "pcr_freq=-5", "x.ts"}, "invalid analyzer setting \"pcr_freq=-5\""},
        {{"-C", dir.path("none"), "x.ts"}, "Failed to load ["},
        {{"-j", "0", "x.ts"}, "--jobs"},
        {{"--json", "-", "--html", "-", "x.ts"}, "only one output can be standard output"},
        {{"--frob", "x.ts"}, "--frob"},
    };
    for (const auto &[args, words] : cases) {
        const run_result run = orvreport(args);
        EXPECT_EQ(run.status, 2) << words;
        EXPECT_EQ(run.out, "") << words;
        EXPECT_THAT(run.err, HasSubstr(words));
    }
    EXPECT_EQ(orvreport({"--help"}).status, 0);
    EXPECT_THAT(orvreport({"-V"}).out, HasSubstr("orvreport 0."));
}

TEST(orvreport, settings_are_those_of_the_analyzer)
{
    const temp_dir dir;
    const std::string capture = dir.file("c.ts", sample("single"));
    const std::string settings = dir.file("s.cfg", R"(orv: { stream_analyzer: { enabled = true;
        pcr_freq_ms = 79; }; };)");
    const auto alerts = [&capture](std::vector<std::string> args) {
        args.insert(args.end(), {"-q", "--json", "-", capture});
        return lines_with(orvreport(args).out, "\"PCR-FREQ\",\"programme").size();
    };
    EXPECT_EQ(alerts({}), 0U);
    EXPECT_GT(alerts({"-C", settings}), 10U);
    EXPECT_EQ(alerts({"-C", settings}), alerts({"-A", "pcr_freq=79"}));
    EXPECT_EQ(alerts({"-C", settings, "-A", "pcr_freq=80"}), 0U);
}

// ---- Many captures and every output

TEST(orvreport, of_many_captures_each_is_judged_and_recorded)
{
    const temp_dir dir;
    const std::string bad = dir.file("a <b> & \"c\" \x01\xff.ts", damaged_sample());
    const std::string good = dir.file("good.ts", sample("single"));
    const std::string fatal = dir.file("fatal.ts", fatal_capture());
    const std::vector<std::string> outputs{
        "--json", dir.path("o.jsonl"), "--junit", dir.path("o.xml"), "--html", dir.path("o.html")};
    std::vector<std::string> args{"-j", "3", "--max", "all=1"};
    args.insert(args.end(), outputs.begin(), outputs.end());
    args.insert(args.end(), {bad, good, fatal, good, dir.path("none"), bad});
    const run_result run = orvreport(args);
    EXPECT_EQ(run.status, 5);
    EXPECT_THAT(run.out, HasSubstr(bad + " (2): EXCEEDED: all 2 > 1"));
    EXPECT_THAT(run.out,
                HasSubstr("6 captures: 2 within limits, 2 limits exceeded, 1 not readable, "
                          "1 cut short"));
    EXPECT_THAT(run.err,
                HasSubstr(good + " is there already, this one is called " + good + " (2)"));
    EXPECT_EQ(checked({dir.path("o.jsonl"), dir.path("o.xml")}), "12 2 2\n");
    EXPECT_EQ(lines_with(file_text(dir.path("o.jsonl")), "\"record\":\"alert\"").size(), 4U);
    const std::string page = file_text(dir.path("o.html"));
    EXPECT_THAT(page, HasSubstr("a &lt;b&gt; &amp; &quot;c&quot; \xef\xbf\xbd\xef\xbf\xbd.ts"));
    EXPECT_THAT(page, Not(HasSubstr("<b>")));
    EXPECT_THAT(page, Not(HasSubstr("http")));
    EXPECT_THAT(page, HasSubstr("CC-BRK PID 256: 1; PID-NDAT PID 259: 1"));

    // The record says all that the captures themselves do.
    const run_result merged =
        orvreport({"-q", "--merge", dir.path("o.jsonl"), "--json", dir.path("m.jsonl")});
    EXPECT_EQ(merged.status, 5);
    EXPECT_EQ(merged.err, "");
    EXPECT_EQ(sorted_lines(dir.path("m.jsonl")), sorted_lines(dir.path("o.jsonl")));
    EXPECT_EQ(orvreport({"-q", "--merge", dir.path("o.jsonl"), "--max", "all=2"}).status, 5);
}

TEST(orvreport, what_was_not_measured_is_null)
{
    const temp_dir dir;
    const run_result run = orvreport({"-q", "--json", "-", dir.file("c", damaged_sample())});
    const std::string summary = lines_with(run.out, "\"summary\"").at(0);
    EXPECT_THAT(summary, HasSubstr("\"checks\":{\"av_distance_ms\":null,"));
    EXPECT_THAT(summary, HasSubstr("\"pcr_interval\":null"));
    EXPECT_THAT(run.out, HasSubstr("\"tag\":\"0:0[286]:(pcr=156600)+11\""));
    EXPECT_THAT(run.out, HasSubstr("\"packet\":286,\"pcr_ticks\":156600,\"packets_since_pcr\":11,"
                                   "\"stream_time_s\":0.0,\"time\":null"));
}

// Stream time goes on where the PCR wraps.
TEST(orvreport, stream_time_counts_from_the_first_pcr_over_the_wrap)
{
    const temp_dir dir;
    const uint64_t wrap = uint64_t{1} << 33;
    std::string log;
    for (const uint64_t pcr : {wrap - 90000, wrap - 45000, uint64_t{90000}})
        log += "ALERT CC-MLR n 7 2 0:0[9]:(pcr=" + std::to_string(pcr) + ")+1\n";
    log += "ALERT CC-MLR n 7 2 1:0[9]:(pcr=5)+1\nALERT CC-MLR n 7 2 pkt[10]\n";
    const run_result run = orvreport({"-q", "--json", "-", "--log", dir.file("l", log)});
    const std::regex time("\"stream_time_s\":([^,]*)");
    std::string times;
    for (std::sregex_iterator at(run.out.begin(), run.out.end(), time), end; at != end; ++at)
        times += (*at)[1].str() + " ";
    EXPECT_EQ(times, "0.0 0.5 2.0 0.0 null ");
}

TEST(orvreport, an_output_that_cannot_be_written_spoils_nothing_else)
{
    const temp_dir dir;
    const std::string good = dir.file("good.ts", sample("single"));
    const std::string kept = dir.file("kept.html", "old");
    const run_result run =
        orvreport({"--json", dir.path("none/o"), "--junit", "/dev/full", "--html", kept, good});
    EXPECT_EQ(run.status, 2);
    EXPECT_THAT(run.out, HasSubstr("no limits; no alerts"));
    EXPECT_THAT(run.err, HasSubstr("cannot write " + dir.path("none/o") + ": No such file"));
    EXPECT_THAT(run.err, HasSubstr("cannot write /dev/full: No space left on device"));
    EXPECT_THAT(file_text(kept), HasSubstr("<!DOCTYPE html>"));
    std::filesystem::create_symlink(kept, dir.path("link"));
    std::filesystem::create_directory(dir.path("folder"));
    EXPECT_EQ(orvreport({"--json", dir.path("folder"), "--junit", dir.path("link"), good}).status,
              2);
    EXPECT_THAT(file_text(kept), HasSubstr("<testsuites"));
    size_t files = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(dir.path()))
        ++files;
    EXPECT_EQ(files, 4U); // nothing is left beside
}

TEST(orvreport, the_user_may_end_it_and_keeps_what_is_known)
{
    const temp_dir dir;
    const std::string endless = dir.path("pipe");
    ASSERT_EQ(mkfifo(endless.c_str(), 0600), 0);
    process run({ORVREPORT_PROGRAM, "-j", "1", "--junit", "/dev/stderr", "--json",
                 dir.path("o.jsonl"), endless, dir.file("later.ts", sample("single"))});
    FILE *writer = fopen(endless.c_str(), "w"); // waits for its reader
    const std::string bytes = damaged_sample();
    ASSERT_EQ(fwrite(bytes.data(), 1, bytes.size(), writer), bytes.size());
    fflush(writer);
    run.send(SIGINT);
    const run_result result = run.wait();
    fclose(writer);
    EXPECT_EQ(result.status, 5);
    EXPECT_THAT(result.out, HasSubstr(endless + ": interrupted at packet "));
    EXPECT_THAT(result.out, HasSubstr("later.ts: not begun; no alerts"));
    EXPECT_EQ(checked({dir.path("o.jsonl")}), "");
}

// ---- Logs

TEST(orvreport, a_log_gives_the_verdict_of_its_capture)
{
    const temp_dir dir;
    const std::string capture = dir.file("c.ts", damaged_sample());
    const std::string log = dir.file(
        "log", run_process({ORVSCAN_PROGRAM, "-S", "a news tag", "-a", "on", capture}).out);
    const run_result run = orvreport({"--log", log, "--max", "CC-BRK=0"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, log + " [a news tag]: EXCEEDED: CC-BRK 1 > 0; 2 alerts (1 CC-BRK, 1 "
                             "PID-NDAT)\n");
    EXPECT_EQ(run.err, "");
    const std::string clean = dir.file(
        "clean",
        run_process({ORVSCAN_PROGRAM, "-a", "on", dir.file("s.ts", sample("single"))}).out);
    EXPECT_EQ(orvreport({"--log", clean, "--max", "all=0"}).status, 0);
}

TEST(orvreport, logs_of_every_sort_have_their_status)
{
    const temp_dir dir;
    const std::string good = "2026-11-21 11:50:37.152091 UTC 25526  ALERT CC-MLR n 7 2 pkt[9]\n";
    const std::string stats = "STAT GLOBAL n 1 1 0 0 0 3\nSTAT ALERT-count n 0 0 0 0 0 4 0 0\n";
    const struct {
        std::string text;
        std::vector<std::string> limits;
        int status;
        std::string out, err;
    } cases[] = {
        {good + std::string(9999, '\0') + good + good.substr(0, 60),
         {},
         0,
         "[n]: no limits; 2 alerts (2 CC-MLR); 2 damaged lines",
         "has 2 damaged lines, the first is line 2"},
        {good + good.substr(0, 60), {"--max", "damaged=0"}, 1, "EXCEEDED: damaged 1 > 0", "line 2"},
        {good + good.substr(0, 60), {"--max", "all=1"}, 1, "EXCEEDED: all 2 > 1", ""},
        {good + std::string(10'000'000, 'x') + "\n", {}, 0, "1 damaged line", "line 2"},
        {"", {}, 4, "no line of an analyzer in it", ""},
        {sample("single"), {}, 4, "no line of an analyzer in it", "damaged"},
        {"STAT GLOBAL n 1 0 0 0 0 0\n", {}, 4, "[n]: no programme", ""},
        // A host that logs no alerts is judged by its counters.
        {stats, {"--max", "CC-BRK=3"}, 1, "CC-BRK 4 > 3; 7 alerts (4 CC-BRK, 3 CC-MLR)", ""},
        {stats + good, {"--max", "CC-BRK=3"}, 0, "within limits; 1 alert (1 CC-MLR)", ""},
        {good + "SIG(2)\n", {}, 0, "1 alert", "has 1 line of other kinds, left alone"},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = c.limits;
        args.insert(args.end(), {"--log", dir.file("log", c.text)});
        const run_result run = orvreport(args);
        EXPECT_EQ(run.status, c.status) << c.out;
        EXPECT_THAT(run.out, HasSubstr(c.out));
        EXPECT_THAT(run.err, HasSubstr(c.err)) << c.out;
    }
}

TEST(orvreport, records_that_are_broken_are_told)
{
    const temp_dir dir;
    const std::string capture = dir.file("c.ts", damaged_sample());
    const std::string record = orvreport({"-q", "--json", "-", capture}).out;
    const std::string torn = dir.file("torn", record.substr(0, record.size() - 40));
    const run_result run = orvreport({"--merge", torn});
    EXPECT_EQ(run.status, 5);
    EXPECT_THAT(run.out, HasSubstr(capture + ": its record has no end; 2 alerts"));
    EXPECT_THAT(run.err, HasSubstr("torn has 1 line that is no record, the first is line 3"));
    for (const std::string text :
         {"", "{\"record\":", "[[[[", "{\"record\":\"alert\",\"capture\":1}"}) {
        const run_result bad = orvreport({"--merge", dir.file("r", text)});
        EXPECT_EQ(bad.status, text.empty() ? 4 : 3) << text;
    }
}

// ---- Pictures

TEST(orvreport, a_page_of_many_alerts_stays_small_and_counts_them_all)
{
    const temp_dir dir;
    std::string log;
    for (unsigned i = 0; i < 200000; ++i) {
        const std::string tag = "[0:1[" + std::to_string(i) + "]:(pcr=" + std::to_string(i * 300) +
                                ")+" + std::to_string(i % 7) + "]\n";
        const std::string pid = std::to_string(256 + i % 40);
        log += "ALERT AV-DELTA+ n pts 256 5 " + pid + " 7 " + std::to_string(i % 977) + " " + tag;
    }
    const std::string page_path = dir.path("p.html");
    const run_result run = orvreport({"-q", "--html", page_path, "--log", dir.file("log", log)});
    EXPECT_EQ(run.status, 0);
    const std::string page = file_text(page_path);
    EXPECT_LT(page.size(), 1'000'000U);
    EXPECT_THAT(page, HasSubstr("<td class=\"n\">256</td><td class=\"n\">5000</td>"));
    EXPECT_THAT(page, HasSubstr("<td class=\"n\" data-key=\"200000\">200000</td>"));
    EXPECT_THAT(page, HasSubstr(", largest 976 ms"));
}

// In a browser: what a reader sees, with its script run.
TEST(orvreport, a_browser_shows_the_numbers_of_the_log)
{
    if (run_process({"sh", "-c", "command -v chromium"}).status != 0)
        GTEST_SKIP() << "chromium is not installed";
    const temp_dir dir;
    const std::string page = dir.path("p.html");
    orvreport({"-q", "--html", page, "-A", "pcr_freq=79", dir.file("b.ts", damaged_sample()),
               dir.file("a.ts", sample("single"))});
    const run_result run =
        run_process({"chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                     "--no-first-run", "--disable-background-networking",
                     "--disable-component-update", "--disable-sync",
                     "--user-data-dir=" + dir.path("profile"), "--dump-dom", "file://" + page});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.out, HasSubstr("<button>Alerts</button>")); // the script ran
    size_t dots = 0;
    uint64_t counted = 0;
    const std::regex bar("<rect [^>]*><title>[^<]*: (\\d+) alert");
    for (std::sregex_iterator at(run.out.begin(), run.out.end(), bar), end; at != end; ++at, ++dots)
        counted += std::stoul((*at)[1]);
    const run_result record =
        orvreport({"-q", "--json", "-", "-A", "pcr_freq=79", dir.path("b.ts"), dir.path("a.ts")});
    EXPECT_EQ(counted, lines_with(record.out, "\"record\":\"alert\"").size());
    EXPECT_GT(dots, 4U);
}

// ---- The manual

TEST(orvreport, the_manual_and_the_completion_know_every_option_and_kind)
{
    const std::string manual = file_text(ORVSCAN_ROOT "/docs/man/orvreport.1");
    const std::string completion = file_text(ORVSCAN_ROOT "/completions/orvreport");
    const std::string help = orvreport({"--help"}).out;
    const std::regex option("--([a-z]+)");
    size_t options = 0;
    for (std::sregex_iterator at(help.begin(), help.end(), option), end; at != end; ++at) {
        EXPECT_THAT(manual, HasSubstr("Fl -" + (*at)[1].str()));
        EXPECT_THAT(completion, HasSubstr("--" + (*at)[1].str()));
        ++options;
    }
    EXPECT_GE(options, 13U);
    for (size_t i = 0; i < LINE_KINDS; ++i) {
        const auto kind = static_cast<line_kind>(i);
        const std::string name(info_of(kind).name);
        EXPECT_THAT(manual, HasSubstr(".It " + name + " Ta "));
        if (is_alert(kind)) {
            EXPECT_THAT(completion, HasSubstr(name));
        }
    }
}

TEST(orvreport, gnu_parallel_and_merge_give_the_verdict_of_one_run)
{
    if (run_process({"sh", "-c", "command -v parallel"}).status != 0)
        GTEST_SKIP() << "parallel is not installed";
    const temp_dir dir;
    dir.file("a.ts", damaged_sample());
    dir.file("b.ts", sample("single"));
    dir.file("c.ts", fatal_capture());
    const run_result run = run_process({"sh", "-c",
                                        "cd " + dir.path() +
                                            " && ls *.ts | parallel --will-cite " ORVREPORT_PROGRAM
                                            " -q --max all=1 --json {}.jsonl {}; " ORVREPORT_PROGRAM
                                            " --merge *.jsonl"});
    EXPECT_EQ(run.status, 5);
    EXPECT_THAT(run.out, HasSubstr("a.ts: EXCEEDED: all 2 > 1; 2 alerts (1 CC-BRK, 1 PID-NDAT)"));
    EXPECT_THAT(run.out,
                HasSubstr("3 captures: 1 within limits, 1 limits exceeded, 1 cut short\n"));
}

} // namespace
