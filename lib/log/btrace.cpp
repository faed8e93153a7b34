// Back-traces as text.

#include <libtarnlink/log.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <execinfo.h>
#include <memory>

namespace {

struct free_symbols {
    void operator()(char **symbols) const { free(static_cast<void *>(symbols)); }
};

} // namespace

int btrace_to_buf(char *buf, size_t len)
{
    void *frames[16];
    const int count = backtrace(frames, 16);
    if (count < 1) {
        perror("backtrace");
        return LOG_FAILED;
    }
    const std::unique_ptr<char *[], free_symbols> symbols(backtrace_symbols(frames, count));
    if (symbols == nullptr) {
        perror("backtrace_symbols");
        return LOG_FAILED;
    }
    size_t used = 0;
    if (len > 0)
        buf[0] = '\0';
    for (int i = 0; i < count && used < len; ++i) {
        const int n =
            snprintf(buf + used, len - used, "#%d: %s\n", i, symbols[static_cast<size_t>(i)]);
        if (n < 1)
            break;
        used += std::min(static_cast<size_t>(n), len - used - 1);
        if (used + 1 >= len)
            break;
    }
    return static_cast<int>(used);
}

int snprintf_btrace(char *buf, size_t len, const char *fmt, ...)
{
    int used = 0;
    if (fmt != nullptr) {
        va_list args;
        va_start(args, fmt);
        used = vsnprintf(buf, len, fmt, args);
        va_end(args);
        if (used < 0 || static_cast<size_t>(used) >= len)
            return LOG_FAILED;
    }
    const int n = btrace_to_buf(buf + used, len - static_cast<size_t>(used));
    return n < 0 ? LOG_FAILED : used + n;
}
