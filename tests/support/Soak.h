#pragma once

#include "support/Sanitizers.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

/// Soaks come in three sizes: a short one for every run of the tests, the full one that
/// `VELAHOST_SOAK=full` selects, and a small one for valgrind's tools, under which everything takes
/// many times as long. All count what they do and end by themselves.
namespace velahost_test {

inline bool IsFullSoak()
{
    const char* size = std::getenv("VELAHOST_SOAK");
    return size != nullptr && std::string_view(size) == "full";
}

/// What a soak of the selected size has to reach.
template <typename Targets>
Targets SelectSoak(const Targets& shortTargets, const Targets& fullTargets,
                   const Targets& valgrindTargets)
{
    if (IsOnValgrind()) {
        return valgrindTargets;
    }
    return IsFullSoak() ? fullTargets : shortTargets;
}

/// The one closing line of a soak, for people and scripts.
inline void ReportSoak(const std::string& figures)
{
    std::printf("soak: %s\n", figures.c_str());
}

} // namespace velahost_test
