// Runs programs and keeps what they write. Their standard input is a pipe that brings nothing.
#pragma once

#include <gmock/gmock.h>

#include <csignal>
#include <string>
#include <sys/types.h>
#include <vector>

struct run_result {
    int status = -1; // exit status, or minus the signal that ended the process; -SIGALRM: it hung
    pid_t pid = 0;
    std::string out, err;
};

inline void PrintTo(const run_result &run, std::ostream *out)
{
    *out << "status " << run.status << "\n" << run.out << "----\n" << run.err << "----";
}

// Matches a run by its status, standard output and standard error.
template <typename Out, typename Err>
auto ends(int status, const Out &out, const Err &err)
{
    return testing::FieldsAre(status, testing::_, out, err);
}

// A process under way. One that does not end within a minute is killed.
class process {
public:
    explicit process(const std::vector<std::string> &args);
    ~process();
    process(process &&) = delete;

    pid_t pid() const { return m_pid; }
    void send(int signo) const { kill(m_pid, signo); }
    // Reads standard error until it holds this text. False when it ends without it.
    bool says(const std::string &text);
    const std::string &err() const { return m_text; } // what was read of standard error
    run_result wait();

private:
    bool read_more();

    pid_t m_pid = -1;
    int m_out, m_err;
    std::string m_text;
};

run_result run_process(const std::vector<std::string> &args);
// A command line in a folder; programs of the build go by their names alone.
run_result run_shell(const std::string &folder, const std::string &line);
