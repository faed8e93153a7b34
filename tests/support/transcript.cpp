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
    std::string text;
    for (size_t start = 0, end = 0; start < kept.size(); start = end) {
        end = std::min(kept.find("\n$ ", start), kept.size() - 1) + 1;
        const std::string scene = kept.substr(start, end - start);
        std::string command;
        for (const std::string &line : split_lines(scene))
            if (line.starts_with("$ ") || line.starts_with("> "))
                command += (command.empty() ? "" : "\n") + line.substr(2);
        const std::string now = played(command, run_shell(folder, command));
        EXPECT_EQ(now, scene);
        text += now;
    }
    if (getenv("ORVSCAN_RECORD") != nullptr)
        std::ofstream(path) << text;
}
