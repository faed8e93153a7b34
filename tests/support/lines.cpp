#include "support/lines.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

std::vector<std::string> split_lines(const std::string &text) { return lines_with(text, ""); }

std::vector<std::string> lines_with(const std::string &text, const std::string &part)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.find(part) != std::string::npos)
            lines.push_back(line);
    return lines;
}

void replace_all(std::string *text, const std::string &what, const std::string &by)
{
    for (size_t at = 0; (at = text->find(what, at)) != std::string::npos; at += by.size())
        text->replace(at, what.size(), by);
}

std::string unstamped(const std::string &text, pid_t pid)
{
    static const std::regex stamp(
        R"((^|\n)\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} [-+A-Za-z0-9]+(?= ))");
    std::string out = std::regex_replace(text, stamp, "$1@");
    replace_all(&out, "@ " + std::to_string(pid) + "  ", "@ PID  ");
    replace_all(&out, "PID=" + std::to_string(pid), "PID=PID");
    return out;
}

temp_dir::temp_dir()
{
    m_path = (std::filesystem::temp_directory_path() / "orvscan-test-XXXXXX").string();
    m_path = mkdtemp(m_path.data());
}

temp_dir::~temp_dir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
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

std::string written(const std::function<void(FILE *)> &write)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *fp = open_memstream(&text, &size);
    write(fp);
    fclose(fp);
    const std::string copy(text, size);
    free(text);
    return copy;
}
