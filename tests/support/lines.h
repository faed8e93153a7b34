// Looks at log text, and temporary folders for the files of a test.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

// The lines of a text, without their line feeds; those that contain `part`.
std::vector<std::string> split_lines(const std::string &text);
std::vector<std::string> lines_with(const std::string &text, const std::string &part);

void replace_all(std::string *text, const std::string &what, const std::string &by);

// The text with everything that differs between runs replaced, where it has the right shape: the
// time stamp at the beginning of a line with "@", the process id `pid` behind it with "PID", and
// "PID=pid" with "PID=PID". So an application-log line reads "@ (ERR)  FSCN  message" and an
// access-log line "@ PID  message".
std::string unstamped(const std::string &text, pid_t pid = 0);

// A temporary folder, removed with everything in it.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(temp_dir &&) = delete;

    std::string path(const std::string &name = "") const { return m_path + "/" + name; }
    // Writes a file; returns its path.
    std::string file(const std::string &name, const std::string &text) const;

private:
    std::string m_path;
};

std::string file_text(const std::string &path);
// What is written to a stream.
std::string written(const std::function<void(FILE *)> &write);
