#include "NumberText.h"

#include <charconv>
#include <limits>
#include <system_error>

namespace VelaHost_Utility {

namespace {

constexpr bool IsWhiteSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// The largest magnitude in range.
unsigned int Limit(NumberRange range, bool negative)
{
    if (range == NumberRange::Unsigned) {
        return std::numeric_limits<unsigned int>::max();
    }
    constexpr unsigned int largest = std::numeric_limits<int>::max();
    return negative ? largest + 1 : largest;
}

} // namespace

std::optional<unsigned int> ReadNumber(std::string_view text, NumberRange range)
{
    const auto skip = [&text](std::size_t count) { text.remove_prefix(count); };
    const auto startsWith = [&text](char a, char b) {
        return !text.empty() && (text.front() == a || text.front() == b);
    };

    while (!text.empty() && IsWhiteSpace(text.front())) {
        skip(1);
    }
    const bool negative = startsWith('-', '-');
    if (startsWith('-', '+')) {
        skip(1);
    }
    int base = 10;
    if (startsWith('0', '0')) {
        // The zero of an octal number is a digit, so it stays.
        base = 8;
        if (text.size() > 1 && (text[1] == 'x' || text[1] == 'X')) {
            base = 16;
            skip(2);
        }
    }

    unsigned int magnitude = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, magnitude, base);
    if (error == std::errc() && magnitude <= Limit(range, negative)) {
        return negative ? 0U - magnitude : magnitude;
    }
    if (stop == end) {
        return 0U;
    }
    return std::nullopt;
}

} // namespace VelaHost_Utility
