#include "EchoClient.h"

#include "RawQueue.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <sys/msg.h>
#include <unistd.h>

namespace velahost_test {

namespace {

enum ControlCode { ConnectReq = 1, ConnectRsp = 2, DisconnectReq = 3, DisconnectRsp = 4 };

constexpr long s_Server = 1;
constexpr unsigned int s_Control = 1;
// Two neighbours have at most 775 bytes of payload, so what twenty clients have under way at once
// fits a queue of the usual 16 KiB, and no reply meets a full one.
constexpr int s_MessagesUnderWay = 2;

void Require(bool condition, const char* what)
{
    if (!condition) {
        throw std::runtime_error(what);
    }
}

int IntAt(std::string_view text, std::size_t offset)
{
    std::int32_t number = 0;
    std::memcpy(&number, text.data() + offset, sizeof number);
    return number;
}

void Exchange(const RawQueue& queue, int messageCount, const std::function<void(int)>& connected)
{
    const int pid = getpid();
    queue.Send(s_Server, MessageText(0, s_Control, ControlPayload(ConnectReq, pid, 0)));
    const std::string accepted = queue.Receive(pid);
    Require(accepted.size() == 20, "connect reply's size");
    const int id = IntAt(accepted, 12);
    Require(accepted == MessageText(0, s_Control, ControlPayload(ConnectRsp, pid, id)),
            "connect reply");
    Require(id >= 1, "connection id");

    connected(id);
    const auto connection = static_cast<unsigned int>(id);
    for (int done = 0; done < messageCount; done += s_MessagesUnderWay) {
        const int end = std::min(done + s_MessagesUnderWay, messageCount);
        for (int sequence = done; sequence < end; ++sequence) {
            queue.Send(s_Server,
                       MessageText(connection, s_EchoCategory, EchoPayload(pid, sequence)));
        }
        for (int sequence = done; sequence < end; ++sequence) {
            Require(queue.Receive(pid) ==
                        MessageText(connection, s_EchoCategory, EchoPayload(pid, sequence)),
                    "echo");
        }
    }

    queue.Send(s_Server, MessageText(0, s_Control, ControlPayload(DisconnectReq, 0, id)));
    Require(queue.Receive(pid) == MessageText(0, s_Control, ControlPayload(DisconnectRsp, pid, id)),
            "disconnect reply");
}

} // namespace

int RunEchoClient(int queueId, int messageCount, const std::function<void(int)>& connected)
{
    try {
        Exchange(RawQueue(queueId), messageCount, connected);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "echo client %d: %s\n", static_cast<int>(getpid()), e.what());
        msgctl(queueId, IPC_RMID, nullptr);
        return 1;
    }
}

std::string EchoPayload(int pid, int sequence)
{
    // 227 has no factor in common with 497: every length from 4 to 500 comes up.
    const auto length = static_cast<std::size_t>(4 + sequence * 227 % 497);
    std::string payload(length, static_cast<char>(pid + sequence));
    const auto number = static_cast<std::int32_t>(sequence);
    std::memcpy(payload.data(), &number, sizeof number);
    return payload;
}

int EchoSequence(std::string_view payload)
{
    return IntAt(payload, 0);
}

} // namespace velahost_test
