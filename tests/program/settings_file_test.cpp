// Settings files: what is accepted, and what is said of the rest.

#include "program.h"

#include <gmock/gmock.h>

#include <fstream>
#include <sys/stat.h>

using namespace testing;

namespace {

const std::string HEAD = "orv: {stream_analyzer: {enabled = true;\n";
const std::string TAIL = "source_tag = \"tag\";};};\n";

struct settings_file : program {
    // Each file FOLDER/NAME of the text stands in the test's folder.
    run_result load(std::string text)
    {
        replace_all(&text, "FOLDER", dir.path());
        const std::string path = dir.file("settings", text);
        run_result result = orvscan({"-vC", path, file});
        replace_all(&result.err, path, "FILE");
        return result;
    }
};

} // namespace

TEST_F(settings_file, is_accepted)
{
    const std::string fifo = dir.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    dir.file("tail", TAIL);
    dir.file("next", "#\n\t@include\t\"" + dir.path("tail") + "\"");
    std::string comments = "/*" + std::string(2'000'000, 'x') + "*/\n";
    for (int i = 0; i < 20'000; ++i)
        comments += "# a comment as people write them, one on each line of a file\n";
    const std::string cases[] = {
        comments + HEAD + comments + TAIL,
        HEAD + "a = \"" + std::string(2'000'000, 'a') + "\";" + TAIL,
        HEAD + "/*\n@include \"/\"\n@include \"FOLDER/fifo\"\n*/# @include \"/\"\n" + TAIL,
        HEAD + "a = \"\\\"\n@include \\\"/\\\"\n// #\";" + TAIL + "# no line feed",
        HEAD + "@include \"FOLDER/tail\"\n# comment\n",
        HEAD + "@include \"FOLDER/next\" // comment\n",
    };
    for (const std::string &text : cases)
        EXPECT_THAT(load(text), ends(0, _, HasSubstr("[tag]\n"))) << text.substr(0, 100);
}

TEST_F(settings_file, reads_an_included_pipe_once)
{
    const std::string fifo = dir.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    process run(
        {ORVSCAN_PROGRAM, "-vC", dir.file("s", HEAD + "@include \"" + fifo + "\"\n"), file});
    std::ofstream(fifo) << TAIL;
    EXPECT_THAT(run.wait().err, HasSubstr("[tag]\n"));
}

TEST_F(settings_file, is_refused_with_line_and_reason)
{
    const std::string parsing = "Error reading/parsing config file [FILE]: line ";
    std::string many;
    for (int i = 0; i < 100'000; ++i)
        many += "a" + std::to_string(i) + " = 1;\n";
    dir.file("broken", "\n\n\na = = 1;\n");
    dir.file("itself", "\n@include \"" + dir.path("itself") + "\"\n");
    const std::pair<std::string, std::string> cases[] = {
        {"", "load_config: missing orv.stream_analyzer section\n"},
        {HEAD + "\n\n\n\n\n = };};", parsing + "7: syntax error\n"},
        {HEAD + "/*\n\n*/ // c\n\n#\n = };};", parsing + "7: syntax error\n"},
        {HEAD + "a = \"\n\n\";\n=};};", parsing + "5: syntax error\n"},
        {HEAD + "\n\n", parsing + "4: syntax error\n"},
        {"/**/ @include \"FOLDER/broken\"\n", parsing + "1: syntax error\n"},
        {"@include \"FOLDER/broken\"\n", parsing + "4: syntax error\n"},
        {"@include \"FOLDER/itself\"\n", parsing + "2: include file nesting too deep\n"},
        {"\n @include \"/none\"\n", parsing + "2: cannot open include file\n"},
        {"\n @include \"/\"\n", parsing + "2: Is a directory\n"},
        {"a = ;\n@include \"/none\"\n", parsing + "1: syntax error\n"},
        {"a = \"b\" \"\n@include \"/\"\n", parsing + "2: syntax error\n"},
        {"a = " + std::string(1'000'000, '('), parsing + "1: memory exhausted\n"},
        {"a = \"" + std::string(17'000'000, 'a'), parsing + "1: File too large\n"},
        {many, parsing + "18714: File too large\n"}, // all of them take minutes
        {HEAD + "source_tag = \"" + std::string(63, 't') + "\";};};",
         "load_config_setting_str: source_tag value is too long (63), max = 63 characters.\n"},
        {HEAD + "pcr_freq_ms = \"" + std::string(32, '1') + "\";};};",
         "load_config_setting_str: pcr_freq_ms value is too long (32), max = 32 characters.\n"},
        {HEAD + "pcr_freq_ms = \"2X\";};};", "tsan_load_config: failed to load config, rc=-5\n"},
    };
    for (const auto &[text, problem] : cases)
        EXPECT_THAT(load(text).err,
                    AllOf(StartsWith("@ (ERR)  FSCN  " + problem + "@ (ERR)  FSCN  "),
                          HasSubstr("  load_config: [FILE] FAILED (-"),
                          EndsWith(")\n" + exit_line(2))));
    EXPECT_THAT(orvscan({"-C", "/", file}).err, HasSubstr("file [/]: line 0: Is a directory\n"));
}
