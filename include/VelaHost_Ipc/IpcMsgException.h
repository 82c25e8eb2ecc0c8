#pragma once

#include <VelaHost_Utility/Exception.h>

namespace VelaHost_Ipc {

/// A failed operation on a message queue or a connection table. Code 0x2FFF, text
/// "IpcMsgException".
class VELAHOST_EXPORT IpcMsgException : public VelaHost_Utility::Exception
{
public:
    /// Logs itself, as all of the family do. `errnoValue`: for receives only.
    explicit IpcMsgException(const Context& context, int errnoValue = 0)
        : Exception(context, 0x2FFF), m_Errno(errnoValue)
    {
        SetText("IpcMsgException");
        LogMe();
    }

    ~IpcMsgException() override = default;

    /// The `errno` of a failed receive; 0 for every other failure.
    int GetErrno() const { return m_Errno; }

private:
    int m_Errno;
};

} // namespace VelaHost_Ipc
