#include "Histogram.h"

#include <algorithm>
#include <cstdio>

Histogram::Histogram(std::vector<Time> times) : m_Sorted(std::move(times))
{
    std::sort(m_Sorted.begin(), m_Sorted.end());
}

Histogram::Time Histogram::GetPercentile(unsigned int percent) const
{
    constexpr std::size_t all = 100;
    const std::size_t rank = (m_Sorted.size() * percent + all - 1) / all;
    return m_Sorted[std::max<std::size_t>(rank, 1) - 1];
}

std::vector<Histogram::Row> Histogram::GetRows() const
{
    std::vector<Row> rows;
    auto begin = m_Sorted.begin();
    for (Row row{Time(0), Time(1), 0}; begin != m_Sorted.end(); row = {row.to, row.to * 2, 0}) {
        const auto end = std::lower_bound(begin, m_Sorted.end(), row.to);
        row.count = static_cast<std::size_t>(end - begin);
        if (row.count > 0 || !rows.empty()) {
            rows.push_back(row);
        }
        begin = end;
    }
    return rows;
}

std::string Histogram::Draw() const
{
    constexpr std::size_t width = 40;
    const std::vector<Row> rows = GetRows();
    std::size_t most = 1;
    for (const Row& row : rows) {
        most = std::max(most, row.count);
    }
    std::string lines;
    for (const Row& row : rows) {
        // In 64 bits: the product is beyond the 32 of a size for a run of the largest size.
        const auto cells = static_cast<std::size_t>(1ULL * row.count * width / most);
        char line[120];
        std::snprintf(line, sizeof line, "%8lld to %8lld us |%-*s %zu\n",
                      static_cast<long long>(row.from.count()),
                      static_cast<long long>(row.to.count()), static_cast<int>(width),
                      std::string(cells, '#').c_str(), row.count);
        lines += line;
    }
    return lines;
}
