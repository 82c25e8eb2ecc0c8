#include "FileWriter.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

namespace velahost_fuzz {

namespace {

using namespace std::string_view_literals;

bool IsBlank(char character)
{
    return character == ' ' || character == '\t';
}

} // namespace

void FileWriter::WriteProperty(velahost_test::ReferenceTable& expected)
{
    const unsigned int layout = m_Input.Byte();
    if ((layout & 1U) != 0) {
        WriteLine((layout & 2U) != 0 ? "" : "#" + Characters(7, "\n"));
    }
    const std::string name = Name(expected);
    // Blanks alone would be a name.
    std::string line = name.empty() ? "=" : name + Blanks() + "=";
    line += Blanks();
    if ((layout & 4U) != 0) {
        const std::string text = Characters(31, "\n\0\""sv);
        line += '"' + text + '"';
        line += Blanks();
        if ((layout & 8U) != 0) {
            line += "#" + Characters(7, "\n\0"sv);
        }
        expected[name] = text;
    } else {
        const auto value = m_Input.Take<std::uint32_t>();
        line += Number(value);
        if ((layout & 8U) != 0) {
            line += " " + Characters(7, "\n\0"sv);
        }
        expected[name] = value;
    }
    WriteLine(line);
}

void FileWriter::WriteLine(const std::string& line)
{
    // In front, not behind: the last line has none.
    if (!m_File.empty()) {
        m_File += '\n';
    }
    if (!line.starts_with('=')) {
        m_File += Blanks();
    }
    m_File += line;
}

std::string FileWriter::Characters(std::size_t most, std::string_view forbidden)
{
    std::string characters = m_Input.Bytes(m_Input.Byte() % (most + 1));
    std::erase_if(characters, [forbidden](char character) {
        return forbidden.find(character) != std::string_view::npos;
    });
    return characters;
}

std::string FileWriter::Name(const velahost_test::ReferenceTable& taken)
{
    std::string name = Characters(15, "=\n\0"sv);
    if (!name.empty()) {
        // Blanks at the ends aren't kept, and these begin other lines than properties.
        if (IsBlank(name.front()) || name.front() == '#' || name.front() == '<') {
            name.front() = '_';
        }
        if (IsBlank(name.back())) {
            name.back() = '_';
        }
    }
    while (taken.contains(name)) {
        name += '\'';
    }
    return name;
}

std::string FileWriter::Number(unsigned int value)
{
    const unsigned int layout = m_Input.Byte();
    const bool mustBeNegative = m_Numbers == Numbers::Signed && value > 0x7FFFFFFF;
    const bool mayBeNegative = m_Numbers == Numbers::Unsigned || mustBeNegative || value == 0;
    const bool isNegative = mustBeNegative || (mayBeNegative && (layout & 1U) != 0);
    const unsigned int magnitude = isNegative ? 0U - value : value;
    static constexpr std::array<const char*, 4> s_Formats{"%u", "0x%x", "0%o", "0X%08X"};
    std::array<char, 16> digits{};
    std::snprintf(digits.data(), digits.size(), s_Formats[(layout >> 1U) & 3U], magnitude);
    const char* const sign = isNegative ? "-" : (layout & 8U) != 0 ? "+" : "";
    return std::string((layout & 16U) != 0 ? "\v\f\r" : "") + sign + digits.data();
}

std::string FileWriter::Blanks()
{
    static constexpr std::array<const char*, 8> s_Blanks{"", "", "", "", " ", " ", "\t", "  \t "};
    return s_Blanks[m_Input.Byte() % s_Blanks.size()];
}

} // namespace velahost_fuzz
