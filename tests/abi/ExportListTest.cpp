#include "LibrarySymbols.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

// Only where abi/exported-symbols.txt holds: at 32 bit, and where the compiler adds nothing.

namespace {

using ::testing::IsEmpty;
using velahost_test::ReadSymbols;

std::set<std::string> Lines(std::istream& in)
{
    std::set<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.insert(line);
    }
    return lines;
}

std::set<std::string> Without(std::set<std::string> all, const std::set<std::string>& some)
{
    for (const std::string& one : some) {
        all.erase(one);
    }
    return all;
}

TEST(Exports, AreExactlyThoseOfTheList)
{
    std::ifstream list(VELAHOST_TEST_EXPORT_LIST);
    std::istringstream symbols(ReadSymbols("--format=just-symbols"));
    const std::set<std::string> expected = Lines(list);
    const std::set<std::string> exported = Lines(symbols);
    EXPECT_GT(expected.size(), 200U);
    EXPECT_THAT(Without(expected, exported), IsEmpty()) << "gone; see scripts/abi";
    EXPECT_THAT(Without(exported, expected), IsEmpty()) << "new; see scripts/abi";
}

} // namespace
