#include "RawQueue.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace velahost_test {

namespace {

constexpr std::size_t s_LargestText = 8192;

struct SystemsRecord
{
    long type;
    char text[s_LargestText];
};

[[noreturn]] void Fail(const char* call)
{
    throw std::system_error(errno, std::generic_category(), call);
}

/// False when the call failed with `expectedError`.
bool SendText(int queue, long type, std::string_view text, int flags, int expectedError)
{
    if (text.size() > s_LargestText) {
        throw std::length_error("text of a queue message");
    }
    const auto record = std::make_unique<SystemsRecord>();
    record->type = type;
    std::memcpy(record->text, text.data(), text.size());
    if (msgsnd(queue, record.get(), text.size(), flags) == 0) {
        return true;
    }
    if (errno != expectedError) {
        Fail("msgsnd");
    }
    return false;
}

/// Nothing when the call failed with `expectedError`.
std::optional<std::string> ReceiveText(int queue, long type, int flags, int expectedError)
{
    const auto record = std::make_unique<SystemsRecord>();
    const ssize_t count = msgrcv(queue, record.get(), s_LargestText, type, flags);
    if (count >= 0) {
        return std::string(record->text, static_cast<std::size_t>(count));
    }
    if (errno != expectedError) {
        Fail("msgrcv");
    }
    return std::nullopt;
}

template <typename Number>
void Append(std::string& bytes, Number number)
{
    bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
}

} // namespace

void RawQueue::Send(long type, std::string_view text) const
{
    SendText(m_Id, type, text, 0, 0);
}

bool RawQueue::TrySend(long type, std::string_view text) const
{
    return SendText(m_Id, type, text, IPC_NOWAIT, EAGAIN);
}

std::string RawQueue::Receive(long type) const
{
    return *ReceiveText(m_Id, type, 0, 0);
}

std::optional<std::string> RawQueue::TryReceive(long type) const
{
    return ReceiveText(m_Id, type, IPC_NOWAIT, ENOMSG);
}

msqid_ds RawQueue::GetState() const
{
    msqid_ds state{};
    if (msgctl(m_Id, IPC_STAT, &state) == -1) {
        Fail("msgctl");
    }
    return state;
}

std::size_t RawQueue::GetMessageCount() const
{
    return GetState().msg_qnum;
}

void RawQueue::Remove() const
{
    if (msgctl(m_Id, IPC_RMID, nullptr) == -1) {
        Fail("msgctl");
    }
}

void Fill(const RawQueue& queue)
{
    constexpr long nobody = 0x7FFFFFFF;
    while (queue.TrySend(nobody, std::string(500, '\0'))) {
    }
    while (queue.TrySend(nobody, "")) {
    }
}

std::string MessageText(unsigned int connection, unsigned int category, std::string_view payload)
{
    std::string text;
    Append(text, static_cast<std::uint16_t>(connection));
    Append(text, static_cast<std::uint16_t>(category));
    text += payload;
    text.append(4, '\0');
    return text;
}

std::string ControlPayload(int code, int pid, int connectionId)
{
    std::string payload;
    Append(payload, static_cast<std::int32_t>(code));
    Append(payload, static_cast<std::int32_t>(pid));
    Append(payload, static_cast<std::int32_t>(connectionId));
    return payload;
}

} // namespace velahost_test
