#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace VelaHost_Utility {

/// A text to be found among the keys of a store, which are ordered byte by byte. Compares four
/// bytes at a time: for texts as short as names the C library's comparison takes longer.
class SoughtName
{
public:
    explicit SoughtName(std::string_view name) : m_Name(name) {}

    friend bool operator<(const std::string& stored, const SoughtName& sought)
    {
        return IsLess(stored, sought.m_Name);
    }
    friend bool operator<(const SoughtName& sought, const std::string& stored)
    {
        return IsLess(sought.m_Name, stored);
    }

private:
    static constexpr std::size_t s_WordSize = sizeof(std::uint32_t);

    static bool IsLess(std::string_view a, std::string_view b)
    {
        const std::size_t common = std::min(a.size(), b.size());
        if (common < s_WordSize) {
            return a < b;
        }
        // The last word may overlap the one before it.
        const std::size_t last = common - s_WordSize;
        std::size_t i = 0;
        while (i < last && Word(a, i) == Word(b, i)) {
            i = std::min(i + s_WordSize, last);
        }
        const std::uint32_t wordOfA = Word(a, i);
        const std::uint32_t wordOfB = Word(b, i);
        return wordOfA != wordOfB ? wordOfA < wordOfB : a.size() < b.size();
    }

    /// Ordered as its bytes are.
    static std::uint32_t Word(std::string_view text, std::size_t position)
    {
        std::uint32_t word = 0;
        std::memcpy(&word, text.data() + position, sizeof word);
        return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
    }

    std::string_view m_Name;
};

} // namespace VelaHost_Utility
