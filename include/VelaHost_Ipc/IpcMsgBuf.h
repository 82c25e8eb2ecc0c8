#pragma once

#include <cstdint>

namespace VelaHost_Ipc {

/// Bytes before the payload; also what a record's counted length adds to its payload length.
inline constexpr int s_MsgHeaderSize = 8;
/// Largest payload of a message on a queue.
inline constexpr int s_MaxQueuePayload = 500;
/// Most bytes of text that a queue's receiver takes.
inline constexpr int s_MaxQueueText = 508;
/// The whole record: the first word and that text.
inline constexpr int s_MsgBufSize = 512;

/// The message that both transports carry, in host byte order and without padding: a wire format
/// between processes. Zero-fill a record before use (`IpcMsgBuf message{};`): on a queue, 4 bytes
/// from behind the payload travel too.
///
/// A record is a plain value at any alignment; copy fields out of a received one rather than
/// taking their addresses.
struct [[gnu::packed]] IpcMsgBuf
{
    /// On a queue the message type: 1 addresses the server, anything else is the process id of a
    /// client. On a stream the frame's total length: 8 plus the payload's.
    std::int32_t mtype;
    /// The connection's id, from 1. On a queue it is what the sender wrote, and so any number.
    std::uint16_t connection;
    /// Which handler the message is for, 0 to 19; 1 is connection control on a queue.
    std::uint16_t category;
    /// Payload, and room for the bytes that travel behind it. That of a received frame goes on
    /// behind the record when it is longer.
    unsigned char data[s_MsgBufSize - s_MsgHeaderSize];
};

static_assert(sizeof(IpcMsgBuf) == s_MsgBufSize);

} // namespace VelaHost_Ipc
