#pragma once

#include <optional>
#include <string_view>

namespace VelaHost_Utility {

/// Which numbers fit 32 bits. Either way a negative one is given as its two's complement.
enum class NumberRange {
    Signed,  ///< -2147483648 to 2147483647.
    Unsigned ///< -4294967295 to 4294967295.
};

/// The number that `text` begins with: white space, a sign, then digits; "0x" or "0X" makes them
/// hexadecimal, a leading "0" octal. What follows the number is ignored.
///
/// Nothing when the text can't be read as a number, or holds one out of range, and more text
/// follows. The same at the end of the text is no error but 0: empty, "-", "0x", too large.
///
/// The result is that of a formatted extraction from a stream in the classic locale with no base
/// flag set, into `int` or `unsigned int`, whatever the process's locale.
std::optional<unsigned int> ReadNumber(std::string_view text, NumberRange range);

} // namespace VelaHost_Utility
