// Runs programs and keeps what they write.
#pragma once

#include <csignal>
#include <string>
#include <sys/types.h>
#include <vector>

struct run_options {
    std::vector<std::string> env{}; // "NAME=VALUE", over the environment of the tests
    std::string input{};            // what a pipe on standard input brings: 1 MB at most
};

struct run_result {
    int status = -1; // exit status, or -1 after a signal
    int signal = 0;  // the signal that ended the process; SIGALRM: it hung
    pid_t pid = 0;
    std::string out;
    std::string err;
};

// A process under way. One that does not end within a minute is killed.
class process {
public:
    explicit process(const std::vector<std::string> &args, const run_options &options = {});
    ~process();
    process(const process &) = delete;
    process &operator=(const process &) = delete;

    pid_t pid() const { return m_pid; }
    void send(int signo) const { kill(m_pid, signo); }
    // Waits until standard error holds this text. False when the process ends without it.
    bool says(const std::string &text);
    run_result wait();

private:
    bool ended();

    pid_t m_pid = -1;
    int m_out = -1;
    int m_err = -1;
    int m_status = 0;
    bool m_ended = false;
};

run_result run_process(const std::vector<std::string> &args, const run_options &options = {});
