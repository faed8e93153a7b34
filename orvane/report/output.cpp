#include "report/output.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t OUTPUT_BUFFER = 64 << 10;

bool report_failure(output_file *out)
{
    fprintf(stderr, "orvreport: cannot write %s: %s\n", out->path.c_str(), strerror(out->error));
    out->fp.reset();
    return false;
}

// What a name stands for: a link is not replaced, but what it leads to.
std::string resolve(const std::string &path)
{
    char real[PATH_MAX];
    return realpath(path.c_str(), real) != nullptr ? real : path;
}

// Whether there is something that must not be replaced by a file.
bool is_special(const std::string &path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode);
}

mode_t usual_mode()
{
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

int create_beside(output_file *out)
{
    struct stat st {};
    if (stat(out->target.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        errno = EISDIR;
        return -1;
    }
    const mode_t mode = st.st_nlink > 0 ? st.st_mode & 07777 : usual_mode();
    out->beside = out->target + ".XXXXXX";
    const int fd = mkostemp(out->beside.data(), O_CLOEXEC);
    if (fd < 0)
        out->beside.clear();
    else if (fchmod(fd, mode) != 0)
        out->error = errno;
    return fd;
}

} // namespace

int close_output::operator()(FILE *fp) const
{
    return fp == stdout || fp == stderr ? fflush(fp) : fclose(fp);
}

output_file::~output_file()
{
    fp.reset();
    discard_output(this);
}

void open_stream(output_file *out, FILE *stream)
{
    out->path = stream == stdout ? "standard output" : "standard error";
    out->fp.reset(stream);
}

bool open_output(output_file *out, const std::string &path)
{
    if (path == "-") {
        open_stream(out, stdout);
        return true;
    }
    out->path = path;
    out->target = resolve(path);
    const int fd = is_special(out->target) ? open(out->target.c_str(), O_WRONLY | O_CLOEXEC)
                                           : create_beside(out);
    if (fd >= 0)
        out->fp.reset(fdopen(fd, "w"));
    if (out->fp == nullptr) {
        out->error = errno;
        return report_failure(out);
    }
    setvbuf(out->fp.get(), nullptr, _IOFBF, OUTPUT_BUFFER);
    return true;
}

void write_output(output_file *out, std::string_view text)
{
    if (out->fp != nullptr && out->error == 0 &&
        fwrite(text.data(), 1, text.size(), out->fp.get()) != text.size())
        out->error = errno;
}

bool finish_output(output_file *out)
{
    if (out->fp == nullptr)
        return out->path.empty();
    if (out->fp.get_deleter()(out->fp.release()) != 0 && out->error == 0)
        out->error = errno; // full disks are told as late as here, too
    if (out->error == 0 && !out->beside.empty() &&
        rename(out->beside.c_str(), out->target.c_str()) != 0)
        out->error = errno;
    if (out->error != 0)
        return report_failure(out);
    out->beside.clear();
    return true;
}

void discard_output(output_file *out)
{
    if (!out->beside.empty())
        unlink(out->beside.c_str());
}
