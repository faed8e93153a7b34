// Texts of captures, logs and command lines made fit for a page or an XML file.
#pragma once

#include <string>
#include <string_view>

// The text with everything that is no UTF-8, or a control character, replaced by U+FFFD.
std::string clean_text(std::string_view text);

// A number with so many digits behind the point, and without the zeros at its end.
std::string short_number(double value, int digits);
