#pragma once

// Internal: part of the library's own headers, not of its interface.

#include <VelaHost_Utility/Exception.h>

namespace VelaHost_Utility {

/// A throw site of the library's own: no component, the standard logger. `file` and `line` are what
/// trace readers know the site by; they stay the same when the code moves.
constexpr Exception::Context ThrowSite(const char* file, unsigned int line)
{
    return {nullptr, file, line, DefaultExceptionLogger};
}

} // namespace VelaHost_Utility
