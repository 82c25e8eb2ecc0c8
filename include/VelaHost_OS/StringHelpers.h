#pragma once

#include <VelaHost_Utility/Export.h>

namespace VelaHost_OS {

/// Lowers the ASCII letters 'A' to 'Z' of `s` in place, whatever the locale, and returns `s`, which
/// must not be null. Every other byte stays as it is.
VELAHOST_EXPORT char* strlwr(char* s);

} // namespace VelaHost_OS
