// The manual pages against the sources and the program: what a user can give or get is in them, and
// the lines they show are true.

#include "program.h"

#include <gmock/gmock.h>

#include <regex>

using namespace testing;

namespace {

const std::string ROOT = ORVSCAN_TESTS "/../";

run_result shell(const std::string &line) { return run_shell(ROOT, line); }

} // namespace

TEST(manual, has_all_that_can_be_given_or_got)
{
    EXPECT_THAT(shell("python3 tests/program/check_manual.py ."), ends(0, "", ""));
}

// The sample of a settings file has every key and changes nothing but what it says of "cc".
TEST(manual, has_a_sample_of_the_defaults)
{
    setenv("SHOW_ORV_CFG", "", 1);
    EXPECT_EQ(orvscan({"-C", ROOT + "docs/orvscan.conf.sample", "/dev/null"}).err,
              orvscan({"-A", "max_zreset_time=0", "/dev/null"}).err);
    unsetenv("SHOW_ORV_CFG");
}

// The damaged sample is what its script makes, and its lines in page and README are true.
TEST(manual, shows_lines_of_the_damaged_sample)
{
    const std::string damaged = ROOT + "samples/damaged.ts";
    EXPECT_EQ(shell("cd samples && ./damage <two_programmes.ts | cmp - damaged.ts").status, 0);
    const run_result run =
        orvscan({"-S", "damaged", "-a", "on", "-A", "pdts_delta=560", "-A", "pcr_delta=1500", "-A",
                 "pcr_freq=100", ROOT + "samples/damaged.ts"});
    const std::string texts =
        file_text(ROOT + "README.md") + file_text(ROOT + "docs/man/orvscan.1");
    const std::string shown = std::regex_replace(texts, std::regex(" =\n +(\\d)"), " = $1");
    size_t count = 0;
    for (std::string line : lines_with(shown, "damaged")) {
        line.erase(0, line.find_first_not_of(' '));
        if (line.starts_with("ALERT ")) {
            EXPECT_THAT(run.out + run.err, HasSubstr("  " + line + "\n"));
            ++count;
        }
    }
    EXPECT_EQ(count, 13U);
}

TEST(manual, passes_lint)
{
    if (shell("command -v mandoc").status != 0)
        GTEST_SKIP() << "mandoc is not installed";
    EXPECT_THAT(shell("mandoc -T lint -W warning docs/man/*"), ends(0, "", ""));
}
