#include "support/process.h"

#include "support/lines.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

[[noreturn]] void exec_program(const std::vector<std::string> &args)
{
    std::vector<char *> argv(args.size() + 1); // ends with a null
    std::transform(args.begin(), args.end(), argv.begin(),
                   [](const std::string &arg) { return const_cast<char *>(arg.c_str()); });
    alarm(60); // seconds; outlives the exec
    execvp(argv[0], argv.data());
    perror(argv[0]);
    _exit(127);
}

} // namespace

process::process(const std::vector<std::string> &args) : m_out(memfd_create("stdout", MFD_CLOEXEC))
{
    int in[2];
    int err[2];
    if (pipe2(in, O_CLOEXEC) == 0 && pipe2(err, O_CLOEXEC) == 0)
        m_pid = fork();
    if (m_pid == 0) {
        dup2(in[0], STDIN_FILENO);
        dup2(m_out, STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        exec_program(args);
    }
    m_err = err[0];
    for (const int fd : {in[0], in[1], err[1]})
        close(fd);
}

process::~process()
{
    if (m_pid > 0) {
        send(SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_out);
    close(m_err);
}

bool process::read_more()
{
    char block[4096];
    const ssize_t n = read(m_err, block, sizeof block);
    if (n > 0)
        m_text.append(block, static_cast<size_t>(n));
    return n > 0;
}

bool process::says(const std::string &text)
{
    while (m_text.find(text) == std::string::npos)
        if (!read_more())
            return false;
    return true;
}

run_result process::wait()
{
    while (read_more()) {
    }
    int status = 0;
    const pid_t pid = waitpid(std::exchange(m_pid, -1), &status, 0);
    return {.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status),
            .pid = pid,
            .out = file_text("/proc/self/fd/" + std::to_string(m_out)),
            .err = m_text};
}

run_result run_process(const std::vector<std::string> &args) { return process(args).wait(); }

run_result run_shell(const std::string &folder, const std::string &line)
{
    const std::string build = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    return run_process({"sh", "-c", "cd \"$1\" && PATH=$2:$PATH && " + line, "sh", folder, build});
}
