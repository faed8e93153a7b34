#include "support/lines.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

std::vector<std::string> split_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> lines_with(const std::string &text, const std::string &part)
{
    std::vector<std::string> lines = split_lines(text);
    std::erase_if(lines, [&](const auto &line) { return line.find(part) == std::string::npos; });
    return lines;
}

std::string unstamped(const std::string &text, pid_t pid)
{
    static const std::regex stamp(
        R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} [-+A-Za-z0-9]+( (\d+)(?=  ))?)");
    const std::string number = std::to_string(pid);
    std::string out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::smatch match;
        if (std::regex_search(line, match, stamp)) {
            const std::string id = match[1].length() == 0     ? ""
                                   : match[2].str() == number ? " PID"
                                                              : match[1].str();
            line = "@" + id + match.suffix().str();
        }
        if (const size_t at = line.find("PID=" + number); at != std::string::npos)
            line.replace(at + 4, number.size(), "PID");
        out += line + (in.eof() ? "" : "\n");
    }
    return out;
}

temp_dir::temp_dir()
{
    m_path = (std::filesystem::temp_directory_path() / "orvscan-test-XXXXXX").string();
    if (mkdtemp(m_path.data()) == nullptr)
        throw std::filesystem::filesystem_error("mkdtemp", m_path, std::error_code());
}

temp_dir::~temp_dir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string temp_dir::path(const std::string &name) const
{
    return name.empty() ? m_path : m_path + "/" + name;
}

std::string temp_dir::file(const std::string &name, const std::string &text) const
{
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
}

std::string file_text(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}
