#pragma once

#include "support/Sanitizers.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

/// Soaks come in three sizes: a short one for every run of the tests, and those that
/// `VELAHOST_SOAK=full` and `VELAHOST_SOAK=small` select. The small one is also taken under
/// valgrind's tools, where everything takes many times as long. All count what they do and end by
/// themselves.
namespace velahost_test {

inline bool IsSoakSelected(std::string_view size)
{
    const char* selected = std::getenv("VELAHOST_SOAK");
    return selected != nullptr && selected == size;
}

/// What a soak of the selected size has to reach.
template <typename Targets>
Targets SelectSoak(const Targets& shortTargets, const Targets& fullTargets,
                   const Targets& smallTargets)
{
    if (IsOnValgrind() || IsSoakSelected("small")) {
        return smallTargets;
    }
    return IsSoakSelected("full") ? fullTargets : shortTargets;
}

/// The one closing line of a soak, for people and scripts.
inline void ReportSoak(const std::string& figures)
{
    std::printf("soak: %s\n", figures.c_str());
}

} // namespace velahost_test
