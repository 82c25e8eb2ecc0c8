#include <internal/unix/OSSystem.h>

#include <cerrno>

namespace VelaHost_OS {

void ThrowSystemError(const VelaHost_Utility::Exception::Context& site)
{
    // Memory for the exception is allocated before its constructor reads errno; an allocation may
    // change errno even when it succeeds.
    const int error = errno;
    const auto restored = [error](unsigned int errorCode) {
        errno = error;
        return errorCode;
    };
    throw VelaHost_Utility::SystemException(site, restored(s_SystemCallFailed));
}

} // namespace VelaHost_OS
