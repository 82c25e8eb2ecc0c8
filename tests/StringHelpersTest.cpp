#include <VelaHost_Utility/StringHelpers.h>

#include <gtest/gtest.h>

#include <cctype>
#include <clocale>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace VelaHost_Utility;

/// The locale of Latin-1; null when there is none.
locale_t s_Latin1 = nullptr;

std::string Chopped(std::string text)
{
    chop(text);
    return text;
}

TEST(Chop, RemovesSpacesAndTabsAtBothEnds)
{
    EXPECT_EQ(Chopped("  a b\t"), "a b");
    EXPECT_EQ(Chopped("\t \ta"), "a");
    EXPECT_EQ(Chopped("a \t "), "a");
    EXPECT_EQ(Chopped(" a\t\tb c "), "a\t\tb c");
}

TEST(Chop, LeavesATextOfBlanksAsItIs)
{
    EXPECT_EQ(Chopped("\t\t"), "\t\t");
    EXPECT_EQ(Chopped(" "), " ");
    EXPECT_EQ(Chopped(" \t "), " \t ");
}

TEST(Chop, LeavesWhatHasNoBlanksAtItsEnds)
{
    EXPECT_EQ(Chopped(""), "");
    EXPECT_EQ(Chopped("x"), "x");
    EXPECT_EQ(Chopped("\r\nx\r\n"), "\r\nx\r\n");
    EXPECT_EQ(Chopped("\v\fx\n"), "\v\fx\n");
    EXPECT_EQ(Chopped("\xa0x\xa0"), "\xa0x\xa0");
}

TEST(Chop, TakesNulAsAnyOtherCharacter)
{
    using namespace std::string_literals;
    EXPECT_EQ(Chopped(" \0 a \0 "s), "\0 a \0"s);
}

/// A destination whose bytes tell whether they were written.
class Destination
{
public:
    Destination() : m_Bytes(16, '*') {}

    char* Get() { return m_Bytes.data(); }
    /// The first `count` bytes, after a check that nothing behind them was touched.
    std::string First(std::size_t count) const
    {
        for (std::size_t i = count; i < m_Bytes.size(); ++i) {
            EXPECT_EQ(m_Bytes[i], '*') << "byte " << i;
        }
        return std::string(m_Bytes.data(), count);
    }

private:
    std::vector<char> m_Bytes;
};

TEST(Strmaxcpy, StoresOnlyATerminatorWithoutRoom)
{
    for (const unsigned int max : {0U, 1U}) {
        Destination destination;
        EXPECT_EQ(strmaxcpy(destination.Get(), "abc", max), destination.Get());
        EXPECT_EQ(destination.First(1), std::string(1, '\0'));
    }
}

TEST(Strmaxcpy, CopiesAllWhateverLargerSizeIsGiven)
{
    for (const unsigned int max : {2U, 3U, 4U, 10U, ~0U}) {
        Destination destination;
        EXPECT_EQ(strmaxcpy(destination.Get(), "abc", max), destination.Get());
        EXPECT_EQ(destination.First(4), std::string("abc", 4));
    }
}

TEST(Strmaxcpy, CopiesAnEmptyText)
{
    Destination destination;
    EXPECT_EQ(strmaxcpy(destination.Get(), "", 5), destination.Get());
    EXPECT_EQ(destination.First(1), std::string(1, '\0'));
}

TEST(Strmaxcpy, ShiftsATextToTheLeft)
{
    const std::string tail(1000, 'x');
    std::string text = "ab" + tail;
    strmaxcpy(text.data(), text.data() + 2, 2000);
    EXPECT_STREQ(text.c_str(), tail.c_str());
}

TEST(Strcpycnt, ReturnsMinusOneForSizeZero)
{
    Destination destination;
    EXPECT_EQ(strcpycnt(destination.Get(), "abc", 0), -1);
    EXPECT_EQ(destination.First(1), std::string(1, '\0'));
}

TEST(Strcpycnt, ReturnsZeroForSizeOneAndCopiesNothing)
{
    Destination destination;
    EXPECT_EQ(strcpycnt(destination.Get(), "abc", 1), 0);
    EXPECT_EQ(destination.First(1), std::string(1, '\0'));
}

TEST(Strcpycnt, CopiesAllWhateverLargerSizeIsGiven)
{
    for (const unsigned int max : {2U, 3U, 10U, ~0U}) {
        Destination destination;
        EXPECT_EQ(strcpycnt(destination.Get(), "abc", max), 0);
        EXPECT_EQ(destination.First(4), std::string("abc", 4));
    }
}

std::string Raised(std::string text)
{
    strupr(text.data());
    return text;
}

TEST(Strupr, GivesNullForNull)
{
    EXPECT_EQ(strupr(nullptr), nullptr);
}

TEST(Strupr, RaisesInPlace)
{
    char text[] = "az AZ 09 {`[ mixedCase";
    EXPECT_EQ(strupr(text), text);
    EXPECT_STREQ(text, "AZ AZ 09 {`[ MIXEDCASE");
    char empty[] = "";
    EXPECT_EQ(strupr(empty), empty);
    EXPECT_STREQ(empty, "");
}

TEST(Strupr, LeavesHighBytesInThePlainLocale)
{
    std::string text;
    for (int byte = 0x80; byte <= 0xff; ++byte) {
        text.push_back(static_cast<char>(byte));
    }
    EXPECT_EQ(Raised(text), text);
}

TEST(Strupr, FollowsTheCurrentLocale)
{
    const std::string text = "x\xe4\xf6\xfc\xff";
    const std::string plain = "X\xe4\xf6\xfc\xff";
    const std::string latin1 = "X\xc4\xd6\xdc\xff";

    s_Latin1 = LC_GLOBAL_LOCALE;
    EXPECT_EQ(Raised(text), latin1);
    const locale_t ofThread = newlocale(LC_CTYPE_MASK, "C", nullptr);
    uselocale(ofThread);
    EXPECT_EQ(Raised(text), plain);
    s_Latin1 = ofThread;
    EXPECT_EQ(Raised(text), latin1);
    uselocale(LC_GLOBAL_LOCALE);
    EXPECT_EQ(Raised(text), plain);

    s_Latin1 = nullptr;
    freelocale(ofThread);
}

} // namespace

/// Stands in for the C library's, as in the plain locale or, where `s_Latin1` is the calling
/// thread's, in one of Latin-1, which few machines have installed. Letters of 0x80 and above are
/// known by their signed number only.
extern "C" int toupper(int c) noexcept
{
    const bool isLatin1 = s_Latin1 != nullptr && s_Latin1 == uselocale(nullptr);
    const bool lower = (c >= 'a' && c <= 'z') || (isLatin1 && c >= -0x20 && c <= -2 && c != -9);
    return lower ? c - 0x20 : c;
}
