#include "client/Histogram.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Time = Histogram::Time;

Histogram Of(const std::vector<int>& microseconds)
{
    std::vector<Time> times;
    for (const int time : microseconds) {
        times.emplace_back(time);
    }
    return Histogram(times);
}

TEST(Histogram, PercentilesAreTimesThatOccurred)
{
    std::vector<int> times;
    for (int time = 200; time >= 1; --time) {
        times.push_back(time);
    }
    const Histogram histogram = Of(times);
    EXPECT_EQ(histogram.GetPercentile(0), Time(1));
    EXPECT_EQ(histogram.GetPercentile(50), Time(100));
    EXPECT_EQ(histogram.GetPercentile(99), Time(198));
    EXPECT_EQ(histogram.GetPercentile(100), Time(200));
}

TEST(Histogram, OfOneTimeHasItEverywhere)
{
    for (const unsigned int percent : {0U, 50U, 100U}) {
        EXPECT_EQ(Of({7}).GetPercentile(percent), Time(7));
    }
}

TEST(Histogram, RowsDoubleFromTheShortestTimeToTheLongest)
{
    const std::vector<Histogram::Row> rows = Of({20, 4, 7, 4}).GetRows();
    ASSERT_EQ(rows.size(), 3U);
    EXPECT_EQ(rows[0].from, Time(4));
    EXPECT_EQ(rows[0].to, Time(8));
    EXPECT_EQ(rows[0].count, 3U);
    EXPECT_EQ(rows[1].from, Time(8));
    EXPECT_EQ(rows[1].count, 0U);
    EXPECT_EQ(rows[2].to, Time(32));
    EXPECT_EQ(rows[2].count, 1U);
}

TEST(Histogram, HasARowForTimesTooShortToMeasure)
{
    const std::vector<Histogram::Row> rows = Of({0, 0}).GetRows();
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].to, Time(1));
    EXPECT_EQ(rows[0].count, 2U);
}

TEST(Histogram, DrawsTheFullestRowAcrossAndTheOthersInProportion)
{
    EXPECT_EQ(Of({1, 1, 2}).Draw(), "       1 to        2 us |" + std::string(40, '#') + " 2\n" +
                                        "       2 to        4 us |" + std::string(20, '#') +
                                        std::string(20, ' ') + " 1\n");
}

} // namespace
