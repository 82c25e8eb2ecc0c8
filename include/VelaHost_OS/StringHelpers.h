#pragma once

#include <VelaHost_Utility/Export.h>

namespace VelaHost_OS {

/// Lowers 'A' to 'Z' in `s`, in place, whatever the locale, and returns `s`, which must not be
/// null. Every other byte stays as it is. May be called from any thread, on a text that no other
/// uses.
VELAHOST_EXPORT char* strlwr(char* s);

} // namespace VelaHost_OS
