#pragma once

#include <VelaHost_Utility/Exception.h>

#include <cerrno>

namespace VelaHost_Ipc {

/// @name Error codes of IpcSocketException
/// The step that failed.
/// @{
inline constexpr unsigned int s_SocketCreateFailed = 0x2101;  ///< `Socket::create`
inline constexpr unsigned int s_SocketBindFailed = 0x2102;    ///< `Socket::bind`
inline constexpr unsigned int s_SocketListenFailed = 0x2103;  ///< `Socket::listen`
inline constexpr unsigned int s_SocketAcceptFailed = 0x2104;  ///< `Socket::accept`
inline constexpr unsigned int s_SocketConnectFailed = 0x2105; ///< `Socket::connect`
inline constexpr unsigned int s_SocketReceiveFailed = 0x2106; ///< `Socket::recv`, or a closed peer
inline constexpr unsigned int s_SocketSendFailed = 0x2107;    ///< `Socket::send`
/// @}

/// A failed operation on a socket. Codes 0x2101 to 0x2107, text "IpcSocketException".
class VELAHOST_EXPORT IpcSocketException : public VelaHost_Utility::Exception
{
public:
    /// `errno` is read before anything can change it.
    IpcSocketException(const Context& context, unsigned int errorCode, int errnoValue = errno)
        : Exception(context, errorCode), m_Errno(errnoValue)
    {
        SetText("IpcSocketException");
        LogMe();
    }

    ~IpcSocketException() override = default;

    /// The `errno` that the failed call left. Where no call failed, as on a connection that the
    /// peer has closed, it is whatever was there before.
    int GetErrno() const { return m_Errno; }

private:
    int m_Errno;
};

} // namespace VelaHost_Ipc
