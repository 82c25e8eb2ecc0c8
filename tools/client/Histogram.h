#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

/// How times are distributed.
class Histogram
{
public:
    using Time = std::chrono::microseconds;

    /// A range of times, and how many of them lie in it.
    struct Row
    {
        Time from; ///< Included.
        Time to;   ///< Not included.
        std::size_t count;
    };

    explicit Histogram(std::vector<Time> times);

    /// The time that `percent` of all do not exceed. There must be a time.
    Time GetPercentile(unsigned int percent) const;
    /// From the shortest time to the longest; each range is as long as all before it, from 0.
    std::vector<Row> GetRows() const;
    /// One line for each row, with a bar.
    std::string Draw() const;

private:
    std::vector<Time> m_Sorted;
};
