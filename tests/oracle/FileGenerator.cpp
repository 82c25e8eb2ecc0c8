#include "oracle/FileGenerator.h"

#include <array>
#include <initializer_list>
#include <iterator>

namespace velahost_test {
namespace {

using namespace std::string_view_literals;

// What the readers look for, and what they must not mistake for it.
constexpr std::string_view s_Special = " \t\r\n\v\f\0=\"#<>/\\0x-+.,'"sv;
constexpr std::string_view s_NameCharacters = "abcXYZ019_.-  \t\"#<>/\r\x80\xFF\xC3\xA9";
constexpr std::string_view s_TextCharacters = "abc XYZ\t=#<>/\\'\r\x80\xFF\xC3\xA9\v";
constexpr std::string_view s_WordCharacters = "abcBoard019_.-\"#=/<\r\x80\xFF";
constexpr std::string_view s_CommentCharacters = "abc =\"#<>/\t\r\x80\0"sv;

constexpr std::array<const char*, 66> s_Numbers{"0",
                                                "1",
                                                "10",
                                                "32",
                                                "2147483646",
                                                "2147483647",
                                                "2147483648",
                                                "-2147483647",
                                                "-2147483648",
                                                "-2147483649",
                                                "4294967294",
                                                "4294967295",
                                                "4294967296",
                                                "-4294967294",
                                                "-4294967295",
                                                "-4294967296",
                                                "0x7FFFFFFF",
                                                "0x7ffffffe",
                                                "0x80000000",
                                                "-0x80000000",
                                                "-0x80000001",
                                                "0xFFFFFFFF",
                                                "0XfFfFfFfF",
                                                "0x100000000",
                                                "-0xFFFFFFFF",
                                                "017777777777",
                                                "020000000000",
                                                "-020000000000",
                                                "037777777777",
                                                "040000000000",
                                                "-037777777777",
                                                "18446744073709551615",
                                                "18446744073709551616",
                                                "-9223372036854775808",
                                                "-9223372036854775809",
                                                "99999999999999999999999999999999",
                                                "0x0000000000000000000000001",
                                                "000000000000000000000000000000000017",
                                                "00",
                                                "08",
                                                "09",
                                                "018",
                                                "0x",
                                                "0X",
                                                "-0x",
                                                "+0X",
                                                "0xg",
                                                "0x-1",
                                                "-",
                                                "+",
                                                "--1",
                                                "+-1",
                                                "-+1",
                                                "- 1",
                                                "+5",
                                                "-5",
                                                "-0",
                                                "+0",
                                                "1e5",
                                                "1.5",
                                                ".5",
                                                "1,000",
                                                "1'000",
                                                "0b11",
                                                "0o17",
                                                "1_000"};

constexpr std::array<const char*, 8> s_AfterNumber{"",      " # ten", "\t#", "abc",
                                                   " then", "\r",     ".",   "=1"};
constexpr std::array<const char*, 6> s_NotValues{"on", "/opt/x=y", "x10", "'1'", "#1", "\x80"};
constexpr std::array<const char*, 5> s_AfterText{"", " # a comment", "#", "\t#=\"", ""};
constexpr std::array<const char*, 4> s_BadAfterText{" x", "\r", "\"", "=1"};
constexpr std::array<const char*, 4> s_Types{"Board", "board", "Trace", "B"};
// Around the sizes of the buffers that line readers use.
constexpr std::array<std::size_t, 12> s_LongLengths{198, 199, 200, 201,  255,  256,
                                                    510, 511, 512, 1023, 1024, 3000};

/// The parts in a row. A braced list, unlike the operands of +, is evaluated from left to right.
std::string Joined(std::initializer_list<std::string> parts)
{
    std::string joined;
    for (const std::string& part : parts) {
        joined += part;
    }
    return joined;
}

} // namespace

ReaderCase FileGenerator::MakeCase(bool sectioned)
{
    m_Names = 0;
    m_HasFaults = Once(2);
    ReaderCase readerCase{FileFormat::Flat, {}};
    if (sectioned) {
        readerCase.format = Once(6) ? FileFormat::SectionedWithoutTags : FileFormat::Sectioned;
    }
    if (Once(4)) {
        readerCase.lastError = "earlier";
    }
    const std::size_t files = Once(8) ? 2 : 1;
    for (std::size_t i = 0; i < files; ++i) {
        std::string file = File(sectioned);
        if (Once(3)) {
            Spoil(file);
        }
        readerCase.files.push_back(std::move(file));
    }
    return readerCase;
}

std::string FileGenerator::File(bool tags)
{
    m_IsOpen = false;
    m_OpenType.clear();
    const bool carriageReturns = Once(12);
    std::string file;
    const std::size_t lines = Below(10);
    for (std::size_t i = 0; i < lines; ++i) {
        file += Line(tags);
        if (carriageReturns) {
            file += '\r';
        }
        if (i + 1 < lines || !Once(3)) {
            file += '\n';
        }
    }
    return file;
}

std::string FileGenerator::Line(bool tags)
{
    if (tags && Once(4)) {
        return TagLine();
    }
    switch (Below(12)) {
    case 0:
        return Blanks();
    case 1:
        return Joined(
            {Blanks(), "#", Characters(20, s_CommentCharacters), Once(40) ? LongRun() : ""});
    case 2:
        return m_HasFaults && Once(3) ? Joined({Blanks(), Characters(10, s_NameCharacters)})
                                      : PropertyLine();
    default:
        return PropertyLine();
    }
}

std::string FileGenerator::PropertyLine()
{
    return Joined({Blanks(), Name(), Blanks(), "=", Blanks(), Value(), Blanks()});
}

std::string FileGenerator::Name()
{
    switch (Below(20)) {
    case 0:
        return Once(2) ? "" : "Port"; // Twice in a file is a duplicate, "Port" and "port" are not.
    case 1:
        return "port";
    case 2:
        return Characters(8, s_NameCharacters);
    default:
        break;
    }
    if (m_HasFaults && Once(15)) {
        return "N1";
    }
    std::string name = "N" + std::to_string(++m_Names);
    if (Once(6)) {
        name += Characters(6, s_NameCharacters);
    }
    if (Once(100)) {
        name += LongRun();
    }
    return name;
}

std::string FileGenerator::Value()
{
    if (m_HasFaults && Once(12)) {
        return OneOf(s_NotValues);
    }
    return Once(2) ? Number() : Text();
}

std::string FileGenerator::Number()
{
    std::string number;
    switch (Below(6)) {
    case 0:
        number = OneOf(s_Numbers);
        break;
    case 1:
        number = "0x" + Characters(9, "0123456789abcdefABCDEF");
        break;
    case 2:
        number = "0" + Characters(12, "01234567");
        break;
    case 3:
        number = Characters(11, "0123456789+-x");
        break;
    default:
        number = std::to_string(Below(1000));
        break;
    }
    if (Once(10)) {
        number.insert(0, Once(2) ? "-" : "\v\f\r");
    }
    if (Once(150)) {
        number.insert(0, std::string(s_LongLengths[Below(s_LongLengths.size())], '0'));
    }
    // Most of these are errors where no number stands before them.
    return Once(3) ? number + OneOf(s_AfterNumber) : number;
}

std::string FileGenerator::Text()
{
    std::string text = "\"" + Characters(12, s_TextCharacters);
    if (Once(60)) {
        text += LongRun();
    }
    if (m_HasFaults && Once(12)) {
        return text;
    }
    return text + "\"" + (m_HasFaults && Once(8) ? OneOf(s_BadAfterText) : OneOf(s_AfterText));
}

std::string FileGenerator::TagLine()
{
    const bool misplaced = m_HasFaults && Once(10);
    return Joined({Blanks(), m_IsOpen != misplaced ? EndTag() : StartTag()});
}

std::string FileGenerator::StartTag()
{
    if (m_HasFaults && Once(20)) {
        return Once(2) ? "<" : "<Board 1";
    }
    std::string type;
    if (Once(12)) {
        type = Characters(5, s_WordCharacters);
        if (!type.empty() && type[0] == '/') {
            type.clear();
        }
    } else {
        type = OneOf(s_Types);
    }
    m_IsOpen = true;
    m_OpenType = type;
    std::string tag = "<" + type;
    const std::size_t words = Below(4);
    for (std::size_t i = 0; i < words; ++i) {
        tag += Once(3) ? "\t " : " ";
        tag += Characters(5, s_WordCharacters);
    }
    if (words == 0 && !tag.empty() && tag != "<" && Once(6)) {
        return tag;
    }
    if (Once(80)) {
        tag += " " + LongRun();
    }
    return Joined({tag, Blanks(), ">", Once(6) ? Characters(8, s_TextCharacters) : ""});
}

std::string FileGenerator::EndTag()
{
    const std::string type = m_HasFaults && Once(10) ? OneOf(s_Types) : m_OpenType;
    m_IsOpen = false;
    switch (Below(8)) {
    case 0:
        return "</" + type;
    case 1:
        return "</" + type + " >";
    case 2:
        return "</" + type + ">" + Characters(8, s_TextCharacters);
    case 3:
        return "</" + type + "\t" + Characters(8, s_TextCharacters);
    default:
        return "</" + type + ">";
    }
}

std::string FileGenerator::Blanks()
{
    if (Once(100)) {
        const std::size_t length = s_LongLengths[Below(s_LongLengths.size())];
        return std::string(length, Once(2) ? ' ' : '\t');
    }
    return Once(2) ? "" : Characters(3, " \t");
}

std::string FileGenerator::Characters(std::size_t most, std::string_view alphabet)
{
    std::string characters(Below(most + 1), ' ');
    for (char& character : characters) {
        character = alphabet[Below(alphabet.size())];
    }
    return characters;
}

std::string FileGenerator::LongRun()
{
    const std::size_t length = s_LongLengths[Below(s_LongLengths.size())];
    return std::string(length, "x= #\""[Below(5)]);
}

void FileGenerator::Spoil(std::string& file)
{
    const std::size_t count = 1 + Below(3);
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t at = Below(file.size() + 1);
        const char byte =
            Once(4) ? static_cast<char>(Below(256)) : s_Special[Below(s_Special.size())];
        switch (Below(5)) {
        case 0:
            file.insert(at, 1, byte);
            break;
        case 1:
            file.erase(at, 1);
            break;
        case 2:
            if (at < file.size()) {
                file[at] = byte;
            }
            break;
        case 3:
            file.resize(at);
            break;
        default: {
            const std::size_t from = Below(file.size() + 1);
            file.insert(at, file.substr(from, Below(20)));
            break;
        }
        }
    }
}

std::uint64_t FileGenerator::Random()
{
    // SplitMix64: unlike the standard's distributions the same everywhere, and seeded by an
    // addition.
    m_State += 0x9E3779B97F4A7C15U;
    std::uint64_t value = m_State;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31);
}

template <typename Choices>
std::string FileGenerator::OneOf(const Choices& choices)
{
    return choices[Below(std::size(choices))];
}

} // namespace velahost_test
