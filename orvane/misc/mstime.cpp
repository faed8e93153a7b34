#include "misc/mstime.h"

#include <libtarnlink/invariant.h>

#include <cstdio>
#include <sys/types.h>

int ms2timestr(size_t ms, char *buf, size_t buflen)
{
    const ssize_t slen = static_cast<ssize_t>(buflen);
    const int n = snprintf(buf, buflen > 0 ? buflen - 1 : 0, "%02zu:%02zu:%02zu.%03zu",
                           ms / 3600000, ms % 3600000 / 60000, ms % 60000 / 1000, ms % 1000);
    INVARIANT(n < (ssize_t)slen);
    return n;
}

ms_text ms_timestr(uint64_t ms)
{
    ms_text result;
    ms2timestr(ms, result.text, sizeof result.text - 1);
    return result;
}
