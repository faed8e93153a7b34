#include "report/text.h"

#include <cstdio>

namespace {

constexpr std::string_view REPLACEMENT = "\xef\xbf\xbd";

unsigned char byte_at(std::string_view text, size_t i)
{
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
}

// Length of the UTF-8 character at `i`, 0 when there is none that a page may hold.
size_t char_length(std::string_view text, size_t i)
{
    const unsigned first = byte_at(text, i);
    const unsigned second = byte_at(text, i + 1);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7f ? 1 : 0;
    const size_t len = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    for (size_t k = 1; k < len; ++k)
        if ((byte_at(text, i + k) & 0xc0) != 0x80)
            return 0;
    const bool is_overlong =
        first < 0xc2 || (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
    const bool is_beyond = first > 0xf4 || (first == 0xf4 && second >= 0x90);
    const bool is_surrogate = first == 0xed && second >= 0xa0;
    const bool is_noncharacter =
        first == 0xef && second == 0xbf && byte_at(text, i + 2) >= 0xbe; // U+FFFE, U+FFFF
    const bool is_control = first == 0xc2 && second < 0xa0;
    return is_overlong || is_beyond || is_surrogate || is_noncharacter || is_control ? 0 : len;
}

} // namespace

std::string clean_text(std::string_view text)
{
    std::string clean;
    for (size_t i = 0; i < text.size();) {
        const size_t len = char_length(text, i);
        clean += len == 0 ? REPLACEMENT : text.substr(i, len);
        i += len == 0 ? 1 : len;
    }
    return clean;
}

std::string short_number(double value, int digits)
{
    char text[64];
    const int n = snprintf(text, sizeof text, "%.*f", digits, value);
    std::string number(text, n > 0 ? static_cast<size_t>(n) : 0);
    if (number.find('.') != number.npos)
        number.erase(number.find_last_not_of('0') + 1);
    if (number.ends_with('.'))
        number.pop_back();
    return number == "-0" ? "0" : number;
}
