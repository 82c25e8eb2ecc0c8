#include "ProgressBar.h"

#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

constexpr std::size_t s_Percent = 100;
constexpr std::size_t s_PercentPerCell = 2;
constexpr std::size_t s_NothingShown = s_Percent + 1;

} // namespace

ProgressBar::ProgressBar(std::size_t total)
    : m_Visible(isatty(STDERR_FILENO) == 1), m_Total(total), m_ShownPercent(s_NothingShown)
{
    Show(0);
}

ProgressBar::~ProgressBar()
{
    if (m_Visible) {
        std::fputs("\r\x1b[K", stderr);
    }
}

void ProgressBar::Show(std::size_t done)
{
    const std::size_t percent = done * s_Percent / m_Total;
    if (!m_Visible || percent == m_ShownPercent) {
        return;
    }
    m_ShownPercent = percent;
    std::string cells(percent / s_PercentPerCell, '#');
    cells.resize(s_Percent / s_PercentPerCell, ' ');
    std::fprintf(stderr, "\r[%s] %3zu %%", cells.c_str(), percent);
}
