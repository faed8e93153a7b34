// The manual pages against the sources and the program: what a user can give or get is in them, and
// the lines they show are true.

#include "program.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>

using namespace testing;

namespace {

const std::string ROOT = ORVSCAN_TESTS "/../", PAGES = ROOT + "docs/man/";

typedef std::set<std::pair<std::string, std::string>> pairs;

// What the two groups of an expression match in a text whose broken literals are joined.
pairs matches(std::string text, const std::string &expression)
{
    text = std::regex_replace(text, std::regex("\"\\s*\n\\s*\""), "");
    const std::regex re(expression);
    pairs found;
    for (std::sregex_iterator it(text.begin(), text.end(), re), end; it != end; ++it)
        found.emplace((*it)[1], (*it)[2]);
    return found;
}

std::string engine_sources()
{
    std::string text;
    for (const auto &entry : std::filesystem::directory_iterator(ROOT + "orvane/tsanalyze"))
        if (entry.path().extension() == ".cpp")
            text += file_text(entry.path());
    return text;
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

size_t count_blanks(const std::string &text)
{
    return static_cast<size_t>(std::count(text.begin(), text.end(), ' '));
}

struct manual : Test {
    std::string orvscan_1 = file_text(PAGES + "orvscan.1");
    std::string conf_5 = file_text(PAGES + "orvscan.conf.5");
    std::string items; // first lines of the items of both pages

    manual()
    {
        for (const std::string &line : lines_with(orvscan_1 + conf_5, ".It "))
            items += line + "\n";
    }
    // The chapter of an alert kind.
    std::string chapter(const std::string &kind) const
    {
        const size_t at = orvscan_1.find("\n.Ss " + kind + ":");
        return at == std::string::npos ? ""
                                       : orvscan_1.substr(at, orvscan_1.find("\n.S", at + 1) - at);
    }
};

} // namespace

TEST_F(manual, has_every_option)
{
    const pairs options = matches(file_text(ROOT + "orvane/tsa/options.cpp"),
                                  R"re(\{"(\w+)", \w+_argument, nullptr, '(.)'\})re");
    EXPECT_GE(options.size(), 13U);
    for (const auto &[name, letter] : options) {
        const std::string flag = letter == "?" ? "\\&?" : letter;
        EXPECT_TRUE(contains(items, ".It Fl " + flag + " ")) << letter;
        EXPECT_TRUE(contains(items, "Fl \\-" + name)) << name;
    }
}

// Names of -A, words of -k and keys of a settings file: all the words among the literals.
TEST_F(manual, has_every_setting)
{
    const pairs words = matches(file_text(ROOT + "orvane/tsanalyze/settings.cpp"),
                                R"re("(?!yes"|no"|disabled"|tsan_)([a-z_]+)"())re");
    EXPECT_GE(words.size(), 35U);
    for (const auto &[word, none] : words)
        EXPECT_TRUE(std::regex_search(items, std::regex("\\b" + word + "\\b"))) << word;
    // The sample file has every key and changes nothing but what it says of "cc".
    const std::string sample = ROOT + "docs/orvscan.conf.sample";
    for (const auto &[key, none] : matches(conf_5, R"(\n\.It Ic (\w+) No()\b)"))
        EXPECT_TRUE(std::regex_search(file_text(sample), std::regex("\n *" + key + "( =|:)")))
            << key;
    setenv("SHOW_ORV_CFG", "", 1);
    std::string with = orvscan({"-C", sample, "/dev/null"}).err;
    std::string without = orvscan({"-A", "max_zreset_time=0", "/dev/null"}).err;
    unsetenv("SHOW_ORV_CFG");
    EXPECT_EQ(with, without);
}

// A table has a row for each word of the form for scripts, an example all the words.
TEST_F(manual, has_every_line_with_all_its_fields)
{
    const std::string text = engine_sources();
    const pairs alerts = matches(text, R"re("ALERT ([A-Z]+-[A-Z]+)( %s [^"]*)\\n")re");
    EXPECT_GE(alerts.size(), 9U);
    for (const auto &[kind, format] : alerts)
        EXPECT_EQ(lines_with(chapter(kind), ".It ").size(), 1U + count_blanks(format)) << kind;
    for (const std::string kind : {"AV-DELTA0", "AV-DELTA+"})
        EXPECT_TRUE(contains(chapter(kind), "\nALERT " + kind + " ")) << kind;
    const pairs stats = matches(text, R"re("STAT ([A-Z][\w-]+)( [^"]*)\\n")re");
    EXPECT_GE(stats.size(), 5U);
    for (const auto &[kind, format] : stats) {
        const auto examples = lines_with(orvscan_1, "STAT " + kind + " ");
        ASSERT_EQ(examples.size(), 1U) << kind;
        EXPECT_EQ(count_blanks(examples[0]), 1U + count_blanks(format)) << kind;
    }
    for (const auto &[tag, none] : matches(text, R"re(log_aval_stats\("([\w-]+)"())re"))
        EXPECT_TRUE(contains(items, "STAT " + tag)) << tag;
    const std::string iso_report = file_text(ROOT + "orvane/tsanalyze/iso_report.cpp");
    const pairs labels = matches(file_text(ROOT + "orvane/tsanalyze/report.cpp") + iso_report,
                                 R"re("(?:\\t)+(?:\+\+ )?([A-Za-z][A-Za-z/ -]*[A-Za-z])(:|  ))re");
    EXPECT_GE(labels.size(), 23U);
    for (const auto &[label, end] : labels)
        EXPECT_TRUE(contains(orvscan_1, " " + label + end)) << label;
    const pairs reasons = matches(iso_report, R"re("((?:no|the|check) [A-Za-z ]+)"())re");
    EXPECT_GE(reasons.size(), 13U);
    for (const auto &[reason, none] : reasons)
        EXPECT_TRUE(contains(items, ".It " + reason + " Ta ")) << reason;
}

// The page of the engine has its operations, statuses and kinds, and the host it shows.
TEST_F(manual, has_every_name_of_the_engine)
{
    const std::string page = file_text(PAGES + "tsanalyze.3");
    const std::string header = file_text(ROOT + "orvane/tsanalyze/include/tsanalyze/tsanalyze.h");
    const pairs names = matches(std::regex_replace(header, std::regex("TSAN_ALERT_KINDS"), ""),
                                R"re(\b(tsan_\w+|TSAN_[A-Z]\w+)(\(|,| = -?\d+,))re");
    EXPECT_GE(names.size(), 35U);
    for (const auto &[name, end] : names)
        EXPECT_TRUE(std::regex_search(page, std::regex("(Fn|Dv) " + name + "\\b"))) << name;
    EXPECT_TRUE(contains(page, file_text(ROOT + "examples/minimal_host.c")));
}

// The damaged sample is what its script makes, and its lines in page and README are true.
TEST_F(manual, shows_lines_of_the_damaged_sample)
{
    const std::string damaged = ROOT + "samples/damaged.ts";
    EXPECT_EQ(
        run_process({"sh", "-c", "cd \"$1\" && ./damage <two_programmes.ts | cmp - damaged.ts",
                     "sh", ROOT + "samples"})
            .status,
        0);
    const run_result run = orvscan({"-S", "damaged", "-a", "on", "-A", "pdts_delta=560", "-A",
                                    "pcr_delta=1500", "-A", "pcr_freq=100", damaged});
    std::string shown = std::regex_replace(file_text(ROOT + "README.md") + orvscan_1,
                                           std::regex(" =\n +(\\d)"), " = $1");
    size_t count = 0;
    for (const std::string &line : lines_with(shown, "ALERT "))
        if (const size_t at = line.find("ALERT ");
            line.find_first_not_of(' ') == at && contains(line, "damaged")) {
            EXPECT_THAT(run.out + run.err, HasSubstr("  " + line.substr(at) + "\n"));
            ++count;
        }
    EXPECT_EQ(count, 13U);
    const run_result by_standard =
        orvscan({"-H", "-A", "iso=1", "-A", "pdts_delta=560", "-A", "pcr_freq=100", damaged});
    std::string block = by_standard.err.substr(by_standard.err.find("\tISO/IEC 13818-1:"));
    block.resize(block.find("tsan_stats END"));
    block = std::regex_replace(block, std::regex("\n\t|^\t"), "\n");
    EXPECT_THAT(shown, HasSubstr(std::regex_replace(block, std::regex("\t"), "    ") + ".Ed"));
}

TEST_F(manual, passes_lint)
{
    if (run_process({"sh", "-c", "command -v mandoc"}).status != 0)
        GTEST_SKIP() << "mandoc is not installed";
    for (const auto &entry : std::filesystem::directory_iterator(PAGES)) {
        const run_result lint =
            run_process({"mandoc", "-T", "lint", "-W", "warning", entry.path()});
        EXPECT_EQ(lint.status, 0) << lint.out << lint.err;
    }
}
