#pragma once

#include <cstddef>

/// One line on standard error that shows how much of `total` is done. Nothing is shown where
/// standard error is not a terminal.
class ProgressBar
{
public:
    explicit ProgressBar(std::size_t total);
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;
    /// Takes the line away.
    ~ProgressBar();

    /// Cheap enough to be called for every step.
    void Show(std::size_t done);

private:
    const bool m_Visible;
    const std::size_t m_Total;
    std::size_t m_ShownPercent;
};
