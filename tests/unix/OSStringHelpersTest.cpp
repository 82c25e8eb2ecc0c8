#include <VelaHost_OS/StringHelpers.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using VelaHost_OS::strlwr;

TEST(Strlwr, LowersAsciiLettersInPlace)
{
    char text[] = "AZ az 09 @[`{ MixedCase";
    EXPECT_EQ(strlwr(text), text);
    EXPECT_STREQ(text, "az az 09 @[`{ mixedcase");
    char empty[] = "";
    EXPECT_EQ(strlwr(empty), empty);
    EXPECT_STREQ(empty, "");
}

TEST(Strlwr, ChangesNothingElse)
{
    std::string text;
    std::string expected;
    for (int byte = 1; byte <= 0xff; ++byte) {
        const bool upper = byte >= 0x41 && byte <= 0x5a;
        text.push_back(static_cast<char>(byte));
        expected.push_back(static_cast<char>(upper ? byte + 0x20 : byte));
    }
    strlwr(text.data());
    EXPECT_EQ(text, expected);
}

} // namespace
