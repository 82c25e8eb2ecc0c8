#include <VelaHost_Ipc/IpcMsgQueueTransport.h>

#include "unix/SocketService.h"

#include "support/Interpose.h"
#include "support/QueueKey.h"
#include "support/RawQueue.h"
#include "support/Sockets.h"
#include "support/interpose/Interposed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace VelaHost_Ipc;
using namespace velahost_test;

constexpr int s_Category = 5;
constexpr int s_ClientPid = 4660;

std::string Document()
{
    std::ifstream file(WIRE_FORMAT_DOCUMENT);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string Hexadecimal(std::string_view bytes)
{
    std::string text;
    for (const char c : bytes) {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02x ", static_cast<unsigned char>(c));
        text += byte;
    }
    return text;
}

/// A message as the document shows it: type, connection, category, payload, the 4 bytes behind it.
std::string Line(const char* name, const void* record, std::size_t size)
{
    long type = 0;
    std::memcpy(&type, record, sizeof type);
    const std::string_view text(static_cast<const char*>(record) + sizeof type, size);
    char head[64];
    std::snprintf(head, sizeof head, "%-14s type %4ld: ", name, type);
    std::string line =
        head + Hexadecimal(text.substr(0, 2)) + "| " + Hexadecimal(text.substr(2, 2)) + "| " +
        Hexadecimal(text.substr(4, size - 8)) + "| " + Hexadecimal(text.substr(size - 4));
    line.back() = '\n';
    return line;
}

/// A frame as the document shows it: length, connection, category, payload.
std::string FrameLine(const std::string& sender, std::string_view frame)
{
    std::string line = sender + ": " + Hexadecimal(frame.substr(0, 4)) + "| " +
                       Hexadecimal(frame.substr(4, 2)) + "| " + Hexadecimal(frame.substr(6, 2));
    if (const std::string_view payload = frame.substr(8); !payload.empty()) {
        line += "| " + Hexadecimal(payload);
    }
    line.back() = '\n';
    return line;
}

class EchoHandler : public IpcMsgHandler
{
public:
    explicit EchoHandler(const IpcMsgQueue& queue) : m_Queue(queue) {}
    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        msg.mtype = s_ClientPid;
        m_Queue.Send(msg, length);
    }

private:
    const IpcMsgQueue& m_Queue;
};

TEST(WireFormatDocument, ShowsTheQueueExchangeAsItTravels)
{
    QueueKey key;
    IpcConnectionManager<IpcMsgQueueTransport> manager(nullptr);
    IpcMsgQueueTransport transport({key.GetPath(), key.GetId()}, manager, nullptr);
    transport.Init();
    EchoHandler echo(transport.GetQueue());
    manager.RegisterHandler(&echo, s_Category);
    const IpcMsgQueue client(key.GetPath(), key.GetId(), false);

    const char* const names[] = {"ConnectReq", "ConnectRsp",    "data",         "data",
                                 "(code 6)",   "DisconnectReq", "DisconnectRsp"};
    std::size_t count = 0;
    std::string dump = "```\n";
    Hook watch(interposed::msgsnd,
               [&](int, const void* record, std::size_t size, int) -> std::optional<int> {
                   dump += Line(names[count++], record, size);
                   return std::nullopt;
               });
    const auto send = [&](int connection, int category, const std::string& payload) {
        IpcMsgBuf message{};
        message.mtype = s_ServerMsgType;
        message.connection = static_cast<std::uint16_t>(connection);
        message.category = static_cast<std::uint16_t>(category);
        std::memcpy(message.data, payload.data(), payload.size());
        client.Send(message, static_cast<int>(payload.size()));
        transport.Run();
    };
    const auto exchange = [&](int connection, int category, const std::string& payload) {
        send(connection, category, payload);
        IpcMsgBuf message{};
        EXPECT_EQ(client.Receive(message, s_ClientPid), 8 + static_cast<int>(payload.size()));
    };
    exchange(0, s_ControlCategory, ControlPayload(1, s_ClientPid, 0));
    exchange(1, s_Category, "hello");
    send(0, s_ControlCategory, ControlPayload(6, 0, 0)); // no answer
    exchange(0, s_ControlCategory, ControlPayload(3, 0, 1));
    EXPECT_EQ(count, std::size(names));

    EXPECT_THAT(Document(), ::testing::HasSubstr(dump + "```\n"));
}

TEST(WireFormatDocument, ShowsTheStreamExchangeAsItTravels)
{
    SocketService service(nullptr, nullptr);
    RecordingHandler echo;
    echo.onMessage = [&](IpcMsgBuf& msg, int length) {
        auto& connection = service.Get(msg.connection);
        EXPECT_TRUE(service.transport.SendMsg(connection, msg.category, msg, length));
    };
    service.manager.RegisterHandler(&echo, s_Category);
    const Descriptor client = service.Connect();

    std::string dump = "```\n";
    Hook watch(interposed::send,
               [&](int, const void* frame, std::size_t size, int) -> std::optional<ssize_t> {
                   dump += FrameLine("server", {static_cast<const char*>(frame), size});
                   return std::nullopt;
               });
    for (const std::string payload : {"hello", "", "bye"}) {
        IpcMsgBuf message{};
        message.mtype = s_MsgHeaderSize + static_cast<std::int32_t>(payload.size());
        message.category = s_Category;
        std::memcpy(message.data, payload.data(), payload.size());
        const std::string_view frame(reinterpret_cast<const char*>(&message),
                                     s_MsgHeaderSize + payload.size());
        dump += FrameLine("client", frame);
        service.Deliver(client, 1, frame);
    }

    EXPECT_THAT(Document(), ::testing::HasSubstr(dump + "```\n"));
}

} // namespace
