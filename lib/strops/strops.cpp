#include <libtarnlink/strops.h>

#include <libtarnlink/invariant.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

int convert(const char *text, double *value)
{
    errno = 0;
    *value = strtod(text, nullptr);
    return errno == 0 ? NUMBER_OK : NUMBER_OUT_OF_RANGE;
}

// The factor of a suffix, or 0 for an unknown one.
double suffix_factor(const char *suffix)
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

} // namespace

int a2double(const char *text, double *out)
{
    INVARIANT(text != nullptr);
    const char *suffix = text;
    while (*suffix != '\0' && isalpha(static_cast<unsigned char>(*suffix)) == 0)
        ++suffix;

    double value = 0;
    int rc = NUMBER_OK;
    if (*suffix == '\0') {
        rc = convert(text, &value);
    } else {
        const double factor = suffix_factor(suffix);
        if (factor == 0)
            return NUMBER_BAD_SUFFIX;
        char number[64];
        const size_t len = static_cast<size_t>(suffix - text);
        if (len >= sizeof number)
            return NUMBER_TOO_LONG;
        copy_text(number, len + 1, text);
        rc = convert(number, &value);
        value *= factor;
    }
    if (rc == NUMBER_OK && out != nullptr)
        *out = value;
    return rc;
}

int a2int64(const char *text, int64_t *out)
{
    double value = 0;
    if (const int rc = a2double(text, &value); rc != NUMBER_OK)
        return rc;
    constexpr double limit = 9223372036854775808.0; // 2^63
    if (std::isnan(value) || value > limit || value < -limit)
        return NUMBER_TOO_LARGE;
    if (out != nullptr) // 2^63 itself is let through and becomes the largest number
        *out = value == limit ? INT64_MAX : static_cast<int64_t>(value);
    return NUMBER_OK;
}

void copy_text(char *dst, size_t size, const char *src)
{
    const size_t len = strnlen(src, size - 1);
    std::copy_n(src, len, dst);
    dst[len] = '\0';
}
