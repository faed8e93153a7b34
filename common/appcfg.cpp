#include "common/appcfg.h"

#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <syslog.h>

namespace {

constexpr std::array<int, 8> LOCAL_FACILITIES{
    LOG_LOCAL0, LOG_LOCAL1, LOG_LOCAL2, LOG_LOCAL3, LOG_LOCAL4, LOG_LOCAL5, LOG_LOCAL6, LOG_LOCAL7,
};
constexpr std::array<const char *, 8> LOCAL_NAMES{
    "local0", "local1", "local2", "local3", "local4", "local5", "local6", "local7",
};

} // namespace

int str2fac(const char *name)
{
    constexpr size_t len = sizeof "local" - 1;
    if (strncmp(name, "local", len) == 0 && isdigit(static_cast<unsigned char>(name[len])) != 0) {
        const long number = strtol(name + len, nullptr, 10); // what follows the digits is let pass
        return number <= 7 ? LOCAL_FACILITIES[static_cast<size_t>(number)] : -1;
    }
    return strcasecmp(name, "user") == 0 ? LOG_USER : -1;
}

const char *fac2str(int code)
{
    if (code == LOG_USER)
        return "user";
    for (size_t i = 0; i < LOCAL_FACILITIES.size(); ++i)
        if (LOCAL_FACILITIES[i] == code)
            return LOCAL_NAMES[i];
    return "#unknown#";
}
