#include "../src/NumberText.h"

#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace VelaHost_Utility {

std::ostream& operator<<(std::ostream& out, NumberRange range)
{
    return out << (range == NumberRange::Signed ? "signed" : "unsigned");
}

} // namespace VelaHost_Utility

namespace {

using namespace VelaHost_Utility;
using namespace std::string_literals;
using velahost_test::IsOnValgrind;

/// What `ReadNumber` promises to equal.
class StreamExtraction
{
public:
    StreamExtraction()
    {
        m_Stream.imbue(std::locale::classic());
        m_Stream.unsetf(std::ios_base::basefield);
    }

    std::optional<unsigned int> Read(const std::string& text, NumberRange range)
    {
        return range == NumberRange::Signed ? Extract<int>(text) : Extract<unsigned int>(text);
    }

private:
    template <typename Number>
    std::optional<unsigned int> Extract(const std::string& text)
    {
        m_Stream.clear();
        m_Stream.str(text);
        Number number = 0;
        m_Stream >> number;
        if (!m_Stream.fail()) {
            return static_cast<unsigned int>(number);
        }
        if (m_Stream.eof()) {
            return 0U;
        }
        return std::nullopt;
    }

    std::istringstream m_Stream;
};

/// Compares both, and keeps the first text on which they differ.
class Comparison
{
public:
    void Check(const std::string& text)
    {
        ++m_Count;
        for (const NumberRange range : {NumberRange::Signed, NumberRange::Unsigned}) {
            const auto actual = ReadNumber(text, range);
            if (actual != m_Expected.Read(text, range) && !m_Differed) {
                m_Differed = true;
                ADD_FAILURE() << range << " " << testing::PrintToString(text) << ": "
                              << testing::PrintToString(actual);
            }
        }
    }

    bool HasDiffered() const { return m_Differed; }
    unsigned int GetCount() const { return m_Count; }

private:
    StreamExtraction m_Expected;
    bool m_Differed = false;
    unsigned int m_Count = 0;
};

TEST(ReadNumber, EqualsStreamExtractionForAllShortTexts)
{
    const std::string alphabet = "\0 \t\n\v\f\r+-01789afgxX,.#\xa0"s;
    Comparison comparison;
    const std::size_t longest = IsOnValgrind() ? 2 : 4;
    std::vector<std::size_t> letters(longest);
    unsigned int texts = 1;
    unsigned int expected = 0;
    for (std::size_t length = 0; length <= longest; ++length) {
        expected += texts;
        texts *= static_cast<unsigned int>(alphabet.size());
        letters.assign(longest, 0);
        std::size_t place = 0;
        do {
            std::string text;
            for (std::size_t i = 0; i < length; ++i) {
                text.push_back(alphabet[letters[i]]);
            }
            comparison.Check(text);
            for (place = 0; place < length && ++letters[place] == alphabet.size(); ++place) {
                letters[place] = 0;
            }
        } while (place < length && !comparison.HasDiffered());
    }
    EXPECT_EQ(comparison.GetCount(), expected);
}

std::string Format(const char* format, std::uint64_t number)
{
    char text[32];
    std::snprintf(text, sizeof text, format, static_cast<unsigned long long>(number));
    return text;
}

TEST(ReadNumber, EqualsStreamExtractionAroundEveryLimit)
{
    Comparison comparison;
    const std::vector<std::string> before{"", " \t\v\f\r\n"};
    const std::vector<std::string> signs{"", "+", "-", "+-", "- "};
    const std::vector<std::string> prefixes{"", "0", "00", "0x", "0X", "0x0", "00x"};
    const std::vector<std::string> after{"", " ", "\r", "#", "g", "8", "9", "f", " 5", "."};
    std::vector<std::string> numbers{"", "8", "g", "99999999999999999999999",
                                     "7777777777777777777777"};
    const std::vector<int> powers =
        IsOnValgrind() ? std::vector<int>{31}
                       : std::vector<int>{0, 3, 7, 8, 15, 16, 30, 31, 32, 33, 62, 63};
    for (const int power : powers) {
        for (int offset = -2; offset <= 2; ++offset) {
            const std::uint64_t number =
                (std::uint64_t{1} << power) + static_cast<std::uint64_t>(offset);
            for (const char* format : {"%llu", "%llx", "%llX", "%llo"}) {
                numbers.push_back(Format(format, number));
            }
        }
    }
    for (const std::string& start : before) {
        for (const std::string& sign : signs) {
            for (const std::string& prefix : prefixes) {
                for (const std::string& number : numbers) {
                    for (const std::string& end : after) {
                        comparison.Check(start + sign + prefix + number + end);
                    }
                }
            }
        }
    }
    EXPECT_EQ(comparison.GetCount(),
              before.size() * signs.size() * prefixes.size() * numbers.size() * after.size());
}

TEST(ReadNumber, EqualsStreamExtractionForRandomTexts)
{
    Comparison comparison;
    std::mt19937 random(20240229);
    const auto pick = [&random](std::size_t count) { return random() % count; };
    const std::array<std::string, 3> digits{"0123456789", "01234567", "0123456789abcdefABCDEF"};
    const std::array<std::string, 8> starts{"", "", "", "0", "0x", "-", "-0x", " +"};
    const int count = IsOnValgrind() ? 3'000 : 300'000;
    for (int i = 0; i < count && !comparison.HasDiffered(); ++i) {
        std::string text = starts[pick(starts.size())];
        const std::string& alphabet = digits[pick(digits.size())];
        for (std::size_t length = pick(14); length > 0; --length) {
            text.push_back(alphabet[pick(alphabet.size())]);
        }
        if (pick(4) == 0) {
            text.push_back(static_cast<char>(pick(256)));
        }
        if (pick(8) == 0 && !text.empty()) {
            text[pick(text.size())] = static_cast<char>(pick(256));
        }
        comparison.Check(text);
    }
}

TEST(ReadNumber, TellsAnErrorFromAnEnd)
{
    const auto isSigned = NumberRange::Signed;
    const auto isUnsigned = NumberRange::Unsigned;
    EXPECT_EQ(ReadNumber("", isSigned), 0U);
    EXPECT_EQ(ReadNumber("-", isSigned), 0U);
    EXPECT_EQ(ReadNumber("- 5", isSigned), std::nullopt);
    EXPECT_EQ(ReadNumber("0x", isSigned), 0U);
    EXPECT_EQ(ReadNumber("0xg", isSigned), std::nullopt);
    EXPECT_EQ(ReadNumber("08", isSigned), 0U);
    EXPECT_EQ(ReadNumber("2147483647", isSigned), 2147483647U);
    EXPECT_EQ(ReadNumber("2147483648", isSigned), 0U);
    EXPECT_EQ(ReadNumber("2147483648 ", isSigned), std::nullopt);
    EXPECT_EQ(ReadNumber("-2147483648 ", isSigned), 2147483648U);
    EXPECT_EQ(ReadNumber("-2147483649 ", isSigned), std::nullopt);
    EXPECT_EQ(ReadNumber("4294967295 ", isUnsigned), 4294967295U);
    EXPECT_EQ(ReadNumber("4294967296 ", isUnsigned), std::nullopt);
    EXPECT_EQ(ReadNumber("-4294967295 ", isUnsigned), 1U);
    EXPECT_EQ(ReadNumber("-4294967296", isUnsigned), 0U);
    EXPECT_EQ(ReadNumber("-4294967296 ", isUnsigned), std::nullopt);
}

} // namespace
