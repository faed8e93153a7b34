// The completion of command lines in bash.

#include "support/process.h"

#include <gtest/gtest.h>

namespace {

// What is offered for a line: words, or "compopt default" for files.
std::string offered(const std::string &line, const std::string &breaks = "=:")
{
    const std::string script = R"(compopt() { printf '%s ' compopt "$2"; }
        source "$1"; COMP_LINE=$2; COMP_POINT=${#2}; COMP_WORDBREAKS=$3
        _orvscan; echo "${COMPREPLY[*]}")";
    const run_result result = run_process({"bash", "--norc", "--noprofile", "-c", script, "bash",
                                           ORVSCAN_TESTS "/../completions/orvscan", line, breaks});
    return result.out + result.err;
}

} // namespace

TEST(completion, offers_what_fits)
{
    const std::pair<const char *, const char *> cases[] = {
        {"orvscan -", "-A -C -H -S -V -Y -a -k -m -r -s -v -? --alerts --analyze --config --from "
                      "--hushlog --maxnum --maxskip --options --srctag --syslog --track --verbose "
                      "--version"},
        {"orvscan --max", "--maxnum --maxskip"},
        {"orvscan -A ",
         "on off enable disable cc_track= iso= max_zreset_time= pcr_delta= pcr_freq= "
         "pdts_delta= skipped_pkts="},
        {"orvscan -HvA pcr", "pcr_delta= pcr_freq="},
        {"orvscan --analyze max", "compopt nospace max_zreset_time="},
        {"orvscan -A iso=", "0 1"},
        {"orvscan -A pcr_freq=", ""},
        {"orvscan --alerts=o", "on off"},
        {"orvscan -a of", "off"},
        {"orvscan -Y l", "local0 local1 local2 local3 local4 local5 local6 local7"},
        {"orvscan -k ", "all cc_t misc_i pat_d pat_pmt pcr_u pdts_u pmt_d sdt_i"},
        {"orvscan --track sdt_i:p", "pat_d pat_pmt pcr_u pdts_u pmt_d"},
        {"orvscan -S ", ""},
        {"orvscan -C ", "compopt default "},
        {"orvscan -aon cap", "compopt default "},
        {"orvscan -- -", "compopt default "},
    };
    for (const auto &[line, words] : cases)
        EXPECT_EQ(offered(line), std::string(words) + "\n") << line;
    // Where signs break no words, the whole word is told.
    EXPECT_EQ(offered("orvscan --analyze=cc_track=", ""),
              "--analyze=cc_track=0 --analyze=cc_track=1\n");
}
