#include <libtarnlink/strops.h>

#include <libtarnlink/invariant.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <strings.h>

static int convert(const char *text, double *value)
{
    errno = 0;
    *value = strtod(text, nullptr);
    return errno == 0 ? 0 : -4;
}

// The factor of a suffix, or 0 for an unknown one.
static double suffix_factor(const char *suffix)
{
    static const struct {
        const char *word;
        double factor;
    } suffixes[] = {
        {"Kb", 1024},   {"K", 1024},          {"Mb", 1048576},
        {"M", 1048576}, {"Gb", 1073741824.0}, {"G", 1073741824.0},
    };
    for (const auto &s : suffixes)
        if (strcasecmp(suffix, s.word) == 0)
            return s.factor;
    return 0;
}

int a2double(const char *text, double *out)
{
    INVARIANT(text != nullptr);
    const char *suffix = text;
    while (*suffix != '\0' && isalpha(static_cast<unsigned char>(*suffix)) == 0)
        ++suffix;

    double value = 0;
    int rc = 0;
    if (*suffix == '\0') {
        rc = convert(text, &value);
    } else {
        const double factor = suffix_factor(suffix);
        if (factor == 0)
            return -5;
        char number[64];
        const size_t len = static_cast<size_t>(suffix - text);
        if (len >= sizeof number)
            return -3;
        copy_text(number, len + 1, text);
        rc = convert(number, &value);
        value *= factor;
    }
    if (rc == 0 && out != nullptr)
        *out = value;
    return rc;
}

int a2int64(const char *text, int64_t *out)
{
    double value = 0;
    if (const int rc = a2double(text, &value); rc != 0)
        return rc;
    constexpr double limit = 9223372036854775808.0; // 2^63
    if (std::isnan(value) || value > limit || value < -limit)
        return -2;
    if (out != nullptr) // 2^63 itself is let through and becomes the largest number
        *out = value == limit ? INT64_MAX : static_cast<int64_t>(value);
    return 0;
}

void copy_text(char *dst, size_t size, const char *src)
{
    const size_t len = strnlen(src, size - 1);
    std::copy_n(src, len, dst);
    dst[len] = '\0';
}
