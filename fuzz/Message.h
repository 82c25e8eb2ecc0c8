#pragma once

#include <VelaHost_Ipc/IpcMsgBuf.h>

#include <cstddef>
#include <string>

namespace velahost_fuzz {

/// The payload of a message that may be longer than the record has room for, as those that arrive
/// on a socket may.
inline std::string PayloadOf(const VelaHost_Ipc::IpcMsgBuf& message, int length)
{
    const auto* bytes = reinterpret_cast<const char*>(&message);
    return {bytes + VelaHost_Ipc::s_MsgHeaderSize, static_cast<std::size_t>(length)};
}

} // namespace velahost_fuzz
