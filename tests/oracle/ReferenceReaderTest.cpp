#include "oracle/ReferenceReader.h"

#include <gtest/gtest.h>

namespace velahost_test {
namespace {

using Kind = ReferenceResult::Kind;

TEST(ReferenceReader, ReadsTheFlatSample)
{
    const std::string_view sample = "#sample file\n"
                                    "MaxChannels = 32\n"
                                    "Mask=0x1F\n"
                                    "Mode = 010\n"
                                    "Name = \"board one\"   # a trailing comment\n"
                                    "Empty = \"\"\n";
    const ReferenceTable expected{{"MaxChannels", 32U},
                                  {"Mask", 31U},
                                  {"Mode", 8U},
                                  {"Name", std::string("board one")},
                                  {"Empty", std::string()}};
    ReferenceStore store;
    const std::string refused = std::string(sample) + "Path = /opt/x=y\nNext = 1\n";
    EXPECT_EQ(ReferenceLoad(store, refused),
              (ReferenceResult{Kind::Refused, "Properties:214", refused.size() - 9}));
    EXPECT_EQ(store.properties, expected);
    EXPECT_EQ(store.lastError, "Invalid UInt value at line 7");

    store = ReferenceStore{};
    EXPECT_EQ(ReferenceLoad(store, sample), (ReferenceResult{Kind::Loaded, "", sample.size()}));
    EXPECT_EQ(store.properties, expected);
    EXPECT_EQ(store.lastError, "");
    EXPECT_EQ(ReferenceLoad(store, sample).site, "Properties:284");
    EXPECT_EQ(store.lastError, "Property multiply defined at line 2");
}

TEST(ReferenceReader, ReadsTheSectionedSample)
{
    const std::string sample = "#sectioned sample\n"
                               "Version = 3\n"
                               "<Board 0 primary>\n"
                               "Irq = 0x0A\n"
                               "Label = \"left slot\"\n"
                               "</Board>\n"
                               "<Board 1>\n"
                               "Irq = 11\n"
                               "</Board>\n"
                               "<Trace>\n"
                               "Level = 2\n"
                               "</Trace>\n";
    ReferenceStore store;
    EXPECT_EQ(ReferenceLoad(store, sample, true).kind, Kind::Loaded);
    EXPECT_EQ(store.properties, (ReferenceTable{{"Version", 3U}}));
    ASSERT_EQ(store.sections.size(), 2U);
    const std::vector<ReferenceSection>& boards = store.sections["Board"];
    ASSERT_EQ(boards.size(), 2U);
    EXPECT_EQ(boards[0].arguments, (std::vector<std::string>{"0", "primary"}));
    EXPECT_EQ(boards[0].properties,
              (ReferenceTable{{"Irq", 10U}, {"Label", std::string("left slot")}}));
    EXPECT_EQ(boards[1].arguments, std::vector<std::string>{"1"});
    EXPECT_EQ(boards[1].properties, (ReferenceTable{{"Irq", 11U}}));
    ASSERT_EQ(store.sections["Trace"].size(), 1U);
    EXPECT_EQ(store.sections["Trace"][0].arguments, std::vector<std::string>{});
    EXPECT_EQ(store.sections["Trace"][0].properties, (ReferenceTable{{"Level", 2U}}));
}

TEST(ReferenceReader, SplitsTheReportOfADuplicateInASection)
{
    ReferenceStore store;
    store.lastError = "earlier";
    EXPECT_EQ(ReferenceLoad(store, "<A>\nN = 1\nN = \"\"\n", true).site, "Properties:270");
    EXPECT_EQ(store.lastError, "earlier at line 3");
    EXPECT_EQ(store.sections["A"][0].lastError, "Property multiply defined");
}

TEST(ReferenceReader, LeavesTheLastErrorWhenATagIsCutOff)
{
    ReferenceStore store;
    store.lastError = "earlier";
    EXPECT_EQ(ReferenceLoad(store, " <\nN = 1\n", true),
              (ReferenceResult{Kind::OutOfRange, "", 3}));
    EXPECT_EQ(store.lastError, "earlier");
}

TEST(ReferenceReader, KeepsTheFormatsRangesOfNumbers)
{
    EXPECT_EQ(ReferenceNumber<int>("2147483648"), 0);
    EXPECT_EQ(ReferenceNumber<int>("2147483648 #"), std::nullopt);
    EXPECT_EQ(ReferenceNumber<unsigned int>("0xFFFFFFFF #"), 4294967295U);
    EXPECT_EQ(ReferenceNumber<int>("-1x"), -1);
    EXPECT_EQ(ReferenceNumber<int>(""), 0);
    EXPECT_EQ(ReferenceNumber<int>("x"), std::nullopt);
}

} // namespace
} // namespace velahost_test
