#include "oracle/FileGenerator.h"
#include "oracle/ReaderComparison.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>

namespace velahost_test {
namespace {

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise)
{
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 0);
}

std::string Shown(const ReaderCase& readerCase)
{
    std::string shown = "last error before: " + Escaped(readerCase.lastError);
    if (readerCase.format == FileFormat::SectionedWithoutTags) {
        shown += "\nsections not allowed";
    }
    for (const std::string& file : readerCase.files) {
        shown += "\nfile: " + Escaped(file);
    }
    return shown;
}

/// How many of the generated cases end in each way, by throw site.
using Endings = std::map<std::string, unsigned int>;

/// Compares the readers on `VELAHOST_ORACLE_FILES` cases (20,000 unless told), case i from the
/// seed `VELAHOST_ORACLE_SEED` + i, and tells how they ended. Stops at the first difference.
Endings CompareReaders(bool sectioned)
{
    const std::uint64_t count = FromEnvironment("VELAHOST_ORACLE_FILES", 20'000);
    const std::uint64_t firstSeed = FromEnvironment("VELAHOST_ORACLE_SEED", 1);
    ReaderComparison comparison;
    Endings endings;
    std::uint64_t files = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        FileGenerator generator(firstSeed + i);
        const ReaderCase readerCase = generator.MakeCase(sectioned);
        const std::string difference = comparison.FindDifference(readerCase);
        if (!difference.empty()) {
            ADD_FAILURE() << difference << "\n"
                          << Shown(readerCase) << "\nVELAHOST_ORACLE_SEED=" << firstSeed + i
                          << " VELAHOST_ORACLE_FILES=1 makes this case";
            break;
        }
        for (const ReferenceResult& result : comparison.GetResults()) {
            ++files;
            ++endings[result.kind == ReferenceResult::Kind::OutOfRange ? "out of range"
                                                                       : result.site];
        }
    }
    std::cout << files << " files compared, first seed " << firstSeed << "\n";
    for (const auto& [ending, times] : endings) {
        std::cout << "  " << (ending.empty() ? "loaded" : ending) << ": " << times << "\n";
    }
    return endings;
}

/// Whether the cases were worth comparing.
void ExpectEach(Endings endings, std::initializer_list<const char*> expected)
{
    if (FromEnvironment("VELAHOST_ORACLE_FILES", 20'000) < 20'000 ||
        ::testing::Test::HasFailure()) {
        return;
    }
    for (const char* ending : expected) {
        EXPECT_GE(endings[ending], 50U) << "hardly any generated file ends at \"" << ending << '"';
    }
    EXPECT_EQ(endings.size(), expected.size());
}

TEST(ReaderOracle, FlatFilesReadAsTheReferenceReadsThem)
{
    ExpectEach(CompareReaders(false),
               {"", "Properties:156", "Properties:161", "Properties:176", "Properties:182",
                "Properties:214", "Properties:270", "Properties:284"});
}

TEST(ReaderOracle, SectionedFilesReadAsTheReferenceReadsThem)
{
    ExpectEach(CompareReaders(true),
               {"", "out of range", "src/unix/PropertiesEx:81", "src/unix/PropertiesEx:90",
                "src/unix/PropertiesEx:95", "src/unix/PropertiesEx:104",
                "src/unix/PropertiesEx:113", "src/unix/PropertiesEx:129",
                "src/unix/PropertiesEx:144", "src/unix/PropertiesEx:150",
                "src/unix/PropertiesEx:188", "Properties:270", "Properties:284"});
}

TEST(FileGenerator, MakesTheSameCaseFromTheSameSeed)
{
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        const ReaderCase first = FileGenerator(seed).MakeCase(true);
        const ReaderCase second = FileGenerator(seed).MakeCase(true);
        EXPECT_EQ(first.files, second.files);
        EXPECT_EQ(first.format, second.format);
    }
}

} // namespace
} // namespace velahost_test
