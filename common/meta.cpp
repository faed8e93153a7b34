#include "common/meta.h"

#include <cstdio>
#include <sys/utsname.h>

namespace {

char g_banner[256];

} // namespace

const char *version_banner()
{
    if (g_banner[0] != '\0')
        return g_banner;
    utsname host{};
    int n = -1;
    if (uname(&host) == 0)
        n = snprintf(g_banner, sizeof g_banner,
                     "%s (%s) %s (%s) %s [%.32s %.64s %.32s] %s; built on %s", "orvscan",
                     "MPEG-TS file analyzer", "0.1-10.8", "brenfold", "regular", host.sysname,
                     host.release, host.machine, "c++20", "2020-08-31");
    if (n < 0 || static_cast<unsigned>(n) >= sizeof g_banner)
        snprintf(g_banner, sizeof g_banner, "#error#");
    return g_banner;
}

const char *library_info()
{
#if defined(__clang__)
    return "libtarnlink, clang " __clang_version__;
#else
    return "libtarnlink, gcc " __VERSION__;
#endif
}
