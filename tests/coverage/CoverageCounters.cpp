// Part of coverage builds only.

#include <VelaHost_Utility/Export.h>

// The compiler's header does not say that these are C functions.
extern "C" {
#include <gcov.h>
}

namespace VelaHost_Utility {

/// Writes the library's counters, which only the library itself can reach, for a process that ends
/// without running exit handlers.
VELAHOST_EXPORT void WriteCoverageCounters();

void WriteCoverageCounters()
{
    __gcov_dump();
}

} // namespace VelaHost_Utility
