#pragma once

#include <VelaHost_Ipc/IpcSocketException.h>

namespace VelaHost_Ipc {

/// Throws the `IpcSocketException` of a failed step, with the `errno` of the moment.
inline void CheckSocket(bool succeeded, const VelaHost_Utility::Exception::Context& site,
                        unsigned int errorCode)
{
    if (!succeeded) {
        throw IpcSocketException(site, errorCode);
    }
}

} // namespace VelaHost_Ipc
