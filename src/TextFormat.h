#pragma once

#include <charconv>
#include <string>

namespace VelaHost_Utility {

/// `number` in lower-case hexadecimal without prefix or leading zeros. Not a stream's work: a
/// stream follows the process's locale and swallows a failed allocation. For decimal numbers
/// std::to_string is as good.
inline std::string Hexadecimal(unsigned int number)
{
    constexpr int base = 16;
    char digits[2 * sizeof number];
    const auto result = std::to_chars(digits, digits + sizeof digits, number, base);
    return std::string(digits, result.ptr);
}

} // namespace VelaHost_Utility
