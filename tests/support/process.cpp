#include "support/process.h"

#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr unsigned MAX_SECONDS = 60;

[[noreturn]] void exec_program(const std::vector<std::string> &args, const run_options &options,
                               int in, int out, int err)
{
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    for (const std::string &entry : options.env)
        putenv(const_cast<char *>(entry.c_str()));
    std::vector<char *> argv;
    for (const std::string &arg : args)
        argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    alarm(MAX_SECONDS); // outlives the exec
    execvp(argv[0], argv.data());
    perror(argv[0]);
    _exit(127);
}

// A pipe that holds `input`, which must not be longer than a pipe can be. Returns the reading end.
int filled_pipe(const std::string &input)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0 || fcntl(fds[1], F_SETPIPE_SZ, 1 << 20) < 0 ||
        write(fds[1], input.data(), input.size()) != static_cast<ssize_t>(input.size()))
        throw std::runtime_error("the input does not fit a pipe");
    close(fds[1]);
    fcntl(fds[0], F_SETFL, 0); // blocking
    return fds[0];
}

std::string content(int fd)
{
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    text.resize(static_cast<size_t>(pread(fd, text.data(), text.size(), 0)));
    return text;
}

} // namespace

process::process(const std::vector<std::string> &args, const run_options &options)
    : m_out(memfd_create("stdout", MFD_CLOEXEC)), m_err(memfd_create("stderr", MFD_CLOEXEC))
{
    for (const int fd : {m_out, m_err}) // writers append, whatever the position of the readers
        fcntl(fd, F_SETFL, O_APPEND);
    const int in = filled_pipe(options.input);
    m_pid = fork();
    if (m_pid == 0)
        exec_program(args, options, in, m_out, m_err);
    close(in);
}

process::~process()
{
    if (!ended()) {
        send(SIGKILL);
        wait();
    }
    close(m_out);
    close(m_err);
}

bool process::ended()
{
    if (!m_ended)
        m_ended = waitpid(m_pid, &m_status, WNOHANG) == m_pid;
    return m_ended;
}

bool process::says(const std::string &text)
{
    for (;;) {
        const bool last = ended();
        if (content(m_err).find(text) != std::string::npos)
            return true;
        if (last)
            return false;
        usleep(2000);
    }
}

run_result process::wait()
{
    if (!m_ended)
        m_ended = waitpid(m_pid, &m_status, 0) == m_pid;
    return {.status = WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1,
            .signal = WIFSIGNALED(m_status) ? WTERMSIG(m_status) : 0,
            .pid = m_pid,
            .out = content(m_out),
            .err = content(m_err)};
}

run_result run_process(const std::vector<std::string> &args, const run_options &options)
{
    return process(args, options).wait();
}
