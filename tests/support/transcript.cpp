#include "support/transcript.h"

#include "support/lines.h"
#include "support/process.h"

#include <fstream>
#include <regex>

namespace {

// Of a shell's children the process ids are not known.
std::string comparable(const std::string &text)
{
    static const std::regex writer("(^|\\n)@ \\d+  "), ours("PID=\\d+"),
        library("libtarnlink, [^\\n]*"),
        banner("orvscan \\(MPEG[^\\n]* \\[Linux [^\\n]*; built on [-0-9]+");
    std::string out = std::regex_replace(unstamped(text), writer, "$1@ PID  ");
    out = std::regex_replace(out, ours, "PID=PID");
    out = std::regex_replace(out, library, "LIBRARY");
    return std::regex_replace(out, banner, "BANNER");
}

std::string played(const std::string &command, const run_result &run)
{
    std::string text = command + "\n";
    replace_all(&text, "\n", "\n> ");
    text = "$ " + text.substr(0, text.size() - 2) + comparable(run.out);
    for (const std::string &line : split_lines(comparable(run.err)))
        text += "! " + line + "\n";
    return text + "= " + std::to_string(run.status) + "\n\n";
}

} // namespace

void replay(const std::string &path, const std::string &folder)
{
    const std::string kept = file_text(path);
    std::vector<std::string> commands;
    for (const std::string &line : split_lines(kept))
        if (line.starts_with("$ "))
            commands.push_back(line.substr(2));
        else if (line.starts_with("> "))
            commands.back() += "\n" + line.substr(2);
    std::string text;
    for (const std::string &command : commands)
        text += played(command, run_shell(folder, command));
    if (getenv("ORVSCAN_RECORD") != nullptr)
        std::ofstream(path) << text;
    EXPECT_EQ(text, kept);
}
