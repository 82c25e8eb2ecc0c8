#pragma once

#include <VelaHost_Ipc/IpcSocketException.h>

#include <cerrno>

namespace VelaHost_Ipc {

/// Throws the `IpcSocketException` of a failed step, with the `errno` of the moment.
inline void CheckSocket(bool succeeded, const VelaHost_Utility::Exception::Context& site,
                        unsigned int errorCode)
{
    if (!succeeded) {
        const int error = errno; // before the exception's memory is allocated
        throw IpcSocketException(site, errorCode, error);
    }
}

} // namespace VelaHost_Ipc
