#pragma once

// Reached through <VelaHost_Ipc/IpcMsgQueueTransport.h>: the name of this file is no promise.

#include <VelaHost_Ipc/IpcMsgBuf.h>
#include <VelaHost_Ipc/IpcMsgException.h>
#include <VelaHost_Utility/Export.h>

#include <internal/ThrowSite.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/msg.h>

namespace VelaHost_Ipc {

/// @cond throw sites
constexpr VelaHost_Utility::Exception::Context IpcMsgQueueSite(unsigned int line)
{
    return VelaHost_Utility::ThrowSite("include/internal/unix/IpcMsgQueue", line);
}

inline constexpr auto s_QueueRemoveFailed = IpcMsgQueueSite(72);
inline constexpr auto s_QueueCreateFailed = IpcMsgQueueSite(79);
inline constexpr auto s_QueueSendFailed = IpcMsgQueueSite(91);
inline constexpr auto s_QueueReceiveFailed = IpcMsgQueueSite(104);
/// @endcond

/// A handle on one System V message queue. Neither destruction nor anything else here removes the
/// queue at the end; it outlives its processes.
///
/// Failures throw `IpcMsgException`, code 0x2FFF. Handles may be used from several threads.
class VELAHOST_EXPORT IpcMsgQueue
{
public:
    /// Opens the queue whose key is `ftok(path, id)`, or creates it with mode 0766. With
    /// `recreate`, an existing queue is removed first, messages and all. Two processes that create
    /// at once share one queue. A path that can't be examined gives the key -1.
    IpcMsgQueue(const char* path, char id, bool recreate);

    /// Sends `payloadLength` bytes of payload (0 to 500) to the receivers of `message.mtype`,
    /// without ever waiting: a full queue is a failure like any other, and so is a length out of
    /// range. The exception's `GetErrno()` is 0.
    void Send(const IpcMsgBuf& message, int payloadLength) const
    {
        if (payloadLength < 0 || payloadLength > s_MaxQueuePayload ||
            SendRecord(message, s_MsgHeaderSize + payloadLength) == -1) {
            throw IpcMsgException(s_QueueSendFailed);
        }
    }

    /// Waits for a message of exactly that type. Returns the count of text bytes, the payload's
    /// length plus 8 by the senders' rule, or -1 when the system reports `ENOMSG`. Every other
    /// failure throws, with `GetErrno()` the system's reason: `EINTR` for a signal, `E2BIG` for a
    /// message of more than 508 bytes, which stays on the queue.
    int Receive(IpcMsgBuf& message, long type) const
    {
        const int count = ReceiveRecord(message, type, 0);
        if (count == -1) {
            const int error = errno;
            if (error != ENOMSG) {
                throw IpcMsgException(s_QueueReceiveFailed, error);
            }
        }
        return count;
    }

    /// Removes the first message of that type, if there is one, whatever its size.
    void Discard(long type) const
    {
        IpcMsgBuf discarded{};
        ReceiveRecord(discarded, type, MSG_NOERROR | IPC_NOWAIT);
    }

    /// The System V identifier.
    int GetId() const { return msqid; }

private:
    // What a 64-bit process must hand to the system: its message type is longer than the first
    // word of the record, the text behind it is the same.
    struct LongTypeRecord
    {
        long mtype;
        unsigned char text[s_MaxQueueText];
    };

    static constexpr std::size_t s_TextOffset = sizeof(IpcMsgBuf::mtype);
    static constexpr bool s_RecordIsSystems = sizeof(long) == s_TextOffset;

    int SendRecord(const IpcMsgBuf& message, int textLength) const
    {
        const auto size = static_cast<std::size_t>(textLength);
        if constexpr (s_RecordIsSystems) {
            return msgsnd(msqid, &message, size, IPC_NOWAIT);
        } else {
            LongTypeRecord record{};
            record.mtype = message.mtype;
            std::memcpy(record.text, reinterpret_cast<const char*>(&message) + s_TextOffset, size);
            return msgsnd(msqid, &record, size, IPC_NOWAIT);
        }
    }

    int ReceiveRecord(IpcMsgBuf& message, long type, int flags) const
    {
        if constexpr (s_RecordIsSystems) {
            return static_cast<int>(msgrcv(msqid, &message, s_MaxQueueText, type, flags));
        } else {
            LongTypeRecord record{};
            const auto count = msgrcv(msqid, &record, s_MaxQueueText, type, flags);
            if (count >= 0) {
                message.mtype = static_cast<std::int32_t>(record.mtype);
                std::memcpy(reinterpret_cast<char*>(&message) + s_TextOffset, record.text,
                            static_cast<std::size_t>(count));
            }
            return static_cast<int>(count);
        }
    }

    int msqid;
};

} // namespace VelaHost_Ipc
