#pragma once

#include <cstddef>
#include <string_view>

namespace VelaHost_Utility {

/// What counts as blank in configuration files and for `chop`; in particular no carriage return.
constexpr bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

/// The position of the first character from `position` on that is not blank; the text's size when
/// there is none.
constexpr std::size_t SkipBlanks(std::string_view text, std::size_t position = 0)
{
    while (position < text.size() && IsBlank(text[position])) {
        ++position;
    }
    return position;
}

/// The text without the blanks at its end.
constexpr std::string_view WithoutLastBlanks(std::string_view text)
{
    while (!text.empty() && IsBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

} // namespace VelaHost_Utility
