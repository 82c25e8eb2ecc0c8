#pragma once

// Internal: part of the library's own headers, not of its interface.

#include <VelaHost_Utility/Exception.h>

#include <internal/ThrowSite.h>

namespace VelaHost_OS {

/// Error code of every failed system call.
inline constexpr unsigned int s_SystemCallFailed = 0x2002;

/// The throw site of the operating-system layer's failures, but for those of `ProcessMutex`.
inline constexpr auto s_OSSystemSite =
    VelaHost_Utility::ThrowSite("include/internal/unix/OSSystem", 68);

/// Throws the `SystemException` of a failed system call, with the `errno` of the moment.
[[noreturn]] VELAHOST_EXPORT void
ThrowSystemError(const VelaHost_Utility::Exception::Context& site = s_OSSystemSite);

/// For calls that return their error number: throws unless `result` is 0. The number itself is
/// not kept.
inline void CheckResult(int result)
{
    if (result != 0) {
        ThrowSystemError();
    }
}

/// For calls that return -1 and set `errno`: throws when `result` is -1.
inline void CheckErrno(int result,
                       const VelaHost_Utility::Exception::Context& site = s_OSSystemSite)
{
    if (result == -1) {
        ThrowSystemError(site);
    }
}

} // namespace VelaHost_OS
