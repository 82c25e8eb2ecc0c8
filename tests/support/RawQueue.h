#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/msg.h>

namespace velahost_test {

/// A System V message queue on the system's calls alone, as a process that is not built on the
/// library meets it. A "text" is what those calls take for one: every byte behind the message
/// type. Failures throw `std::system_error`.
class RawQueue
{
public:
    explicit RawQueue(int id) : m_Id(id) {}

    int GetId() const { return m_Id; }
    /// Waits while the queue is full.
    void Send(long type, std::string_view text) const;
    /// False when the queue is full.
    bool TrySend(long type, std::string_view text) const;
    /// Waits for a message of that type.
    std::string Receive(long type) const;
    /// Nothing when no such message is there; type 0 means any.
    std::optional<std::string> TryReceive(long type) const;
    msqid_ds GetState() const;
    std::size_t GetMessageCount() const;
    void Remove() const;

private:
    int m_Id;
};

/// Sends short messages of a type that nobody receives until the queue takes no more.
void Fill(const RawQueue& queue);

/// The text of a message: connection, category, payload and the 4 zero bytes that travel behind it.
std::string MessageText(unsigned int connection, unsigned int category, std::string_view payload);

/// The 12 bytes of a connection-control message.
std::string ControlPayload(int code, int pid, int connectionId);

} // namespace velahost_test
