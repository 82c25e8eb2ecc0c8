// The socket transport's cutting of a byte stream into frames: however the same bytes arrive, the
// same messages result, the ones that an obvious second cutter finds.

#include "FakeSockets.h"
#include "Fuzz.h"
#include "Message.h"

#include <VelaHost_Ipc/IpcSocketTransport.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <iostream>
#include <iterator>
#include <tuple>
#include <utility>
#include <vector>

namespace velahost_fuzz {

namespace {

using namespace VelaHost_Ipc;

struct Message
{
    int category;
    std::string payload;

    bool operator==(const Message&) const = default;
};

/// What becomes of a stream before its client closes.
struct Outcome
{
    std::vector<Message> messages = {};
    bool isMalformed = false; ///< A frame shorter than its own head.
    std::string left = {};    ///< Bytes that are not a whole frame yet.
};

constexpr std::size_t s_Header = 8;
constexpr std::size_t s_BufferSize = 2048;
constexpr bool HasHandler(int category)
{
    return category < s_CategoryCount && category % 3 != 2;
}

std::uint32_t Word(const std::string& bytes)
{
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data(), sizeof word);
    return word;
}

Outcome Cut(std::string stream)
{
    Outcome outcome;
    // A frame without payload is only cut when something follows it.
    while (stream.size() > s_Header) {
        const std::size_t length = Word(stream);
        if (length < s_Header) {
            outcome.isMalformed = true;
            break;
        }
        if (length > stream.size() || length > s_BufferSize) {
            break;
        }
        std::uint16_t category = 0;
        std::memcpy(&category, stream.data() + 6, sizeof category);
        outcome.messages.push_back({category, stream.substr(s_Header, length - s_Header)});
        stream.erase(0, length);
    }
    outcome.left = stream;
    return outcome;
}

class Observer final : public IpcLogAdapter, public IpcMsgHandler
{
public:
    void LogInfo(const char*, ...) override {}
    void LogDebug(const char*, ...) override {}
    void LogError(const char*, ...) override { ++m_Errors; }
    void LogRcvMsg(int category, int, const void* payload, int length) override
    {
        const auto* bytes = static_cast<const char*>(payload);
        m_Logged.push_back({category, std::string(bytes, bytes + length)});
    }
    void LogSendMsg(int, int, const void*, int) override {}

    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        // Handlers may copy a whole record, also at the end of the buffer.
        const IpcMsgBuf copy = msg;
        Require(std::memcmp(&copy, &msg, sizeof copy) == 0, "a whole record may be read");
        Require(msg.connection == 1, "a message carries its connection's id");
        Require(msg.mtype == length + static_cast<int>(s_Header), "lengths agree");
        m_Handled.push_back({msg.category, PayloadOf(msg, length)});
    }
    void HandleIpcClose(int connectionId) override
    {
        Require(connectionId == 1, "handlers hear which connection has gone");
        ++m_Closes;
    }

    void Clear() { *this = Observer(); }

    std::vector<Message> m_Logged;
    std::vector<Message> m_Handled;
    int m_Errors = 0;
    int m_Closes = 0;
};

/// A server with one client at a time.
class Server
{
public:
    Server() : m_Manager(&m_Observer), m_Transport({0}, m_Manager, &m_Observer)
    {
        for (int category = 0; category < s_CategoryCount; ++category) {
            if (HasHandler(category)) {
                m_Manager.RegisterHandler(&m_Observer, category);
                ++m_HandlerCount;
            }
        }
        m_Transport.Init();
    }

    /// Sends a stream in these pieces and compares what becomes of it.
    void Serve(const std::vector<std::string>& pieces, const Outcome& expected, int endError)
    {
        m_Observer.Clear();
        m_Sockets.Connect();
        m_Transport.Run();
        Require(m_Sockets.IsConnected(), "a client is accepted");
        for (const std::string& piece : pieces) {
            m_Sockets.Send(piece);
        }
        while (m_Sockets.IsConnected() && !m_Sockets.IsAllReceived()) {
            m_Transport.Run();
        }
        if (m_Sockets.IsConnected()) {
            const IpcSocketTransport::Connection& connection = *m_Manager.GetConnection(1);
            Require(!expected.isMalformed, "a malformed frame ends the connection");
            Require(std::string(connection.buffer, connection.buffer + connection.fill) ==
                        expected.left,
                    "what is no whole frame waits in the buffer");
            m_Sockets.End(endError);
            m_Transport.Run();
        } else {
            Require(expected.isMalformed || expected.left.size() > s_BufferSize,
                    "only what can't be followed ends a connection");
        }
        Require(!m_Sockets.IsConnected() && m_Manager.GetConnection(1)->IsFree() &&
                    m_Manager.GetConnectionCount() == 1,
                "an ended connection is free");
        Check(expected);
    }

private:
    void Check(const Outcome& expected) const
    {
        Require(m_Observer.m_Logged == expected.messages, "the messages logged are those sent");
        std::vector<Message> handled;
        std::copy_if(expected.messages.begin(), expected.messages.end(),
                     std::back_inserter(handled),
                     [](const Message& message) { return HasHandler(message.category); });
        Require(m_Observer.m_Handled == handled, "the messages handled are those sent");
        const std::size_t errors = expected.messages.size() - handled.size() +
                                   static_cast<std::size_t>(expected.isMalformed);
        Require(static_cast<std::size_t>(m_Observer.m_Errors) == errors,
                "an error is logged for every message without handler and every malformed frame");
        Require(m_Observer.m_Closes == m_HandlerCount, "every handler hears once of the end");
    }

    FakeSockets m_Sockets;
    Observer m_Observer;
    IpcConnectionManager<IpcSocketTransport> m_Manager;
    IpcSocketTransport m_Transport;
    int m_HandlerCount = 0;
};

/// Random enough to cut a stream differently each time.
class Sizes
{
public:
    explicit Sizes(std::uint32_t seed) : m_State(seed) {}

    std::size_t Below(std::size_t limit)
    {
        m_State = m_State * 1664525U + 1013904223U;
        return (m_State >> 16U) % limit;
    }

private:
    std::uint32_t m_State;
};

std::vector<std::string> Pieces(const std::string& stream, const std::function<std::size_t()>& size)
{
    std::vector<std::string> pieces;
    for (std::size_t offset = 0; offset < stream.size(); offset += pieces.back().size()) {
        pieces.push_back(stream.substr(offset, size()));
    }
    return pieces;
}

/// A stream of right and wrong frames and loose bytes.
std::string Stream(Input& input)
{
    std::string stream;
    while (!input.IsEmpty() && stream.size() < 2 * s_BufferSize) {
        const unsigned int kind = input.Byte();
        std::uint32_t length = 0;
        std::size_t payload = 0;
        if (kind >= 0x80) {
            stream += input.Bytes(kind & 0x3FU);
            continue;
        }
        if (kind >= 0x40) { // Any length word.
            length = input.Take<std::uint32_t>();
            payload = kind & 0x3FU;
        } else if (kind >= 0x38) { // A large frame.
            payload = input.Take<std::uint16_t>() % (s_BufferSize - s_Header + 1);
            length = static_cast<std::uint32_t>(payload + s_Header);
        } else {
            payload = kind;
            length = static_cast<std::uint32_t>(payload + s_Header);
        }
        std::string frame(s_Header, '\0');
        const auto category = static_cast<std::uint16_t>(input.Byte() % 24);
        std::memcpy(frame.data(), &length, sizeof length);
        std::memcpy(frame.data() + 6, &category, sizeof category);
        std::string bytes = input.Bytes(std::min<std::size_t>(payload, 4));
        bytes.resize(payload, bytes.empty() ? '.' : bytes.back());
        stream += frame;
        stream += bytes;
    }
    return stream;
}

} // namespace

} // namespace velahost_fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace velahost_fuzz;
    // A failed receive is told there.
    std::cout.rdbuf(nullptr);
    static Server s_Server;

    Input input(data, size);
    Sizes sizes(input.Take<std::uint16_t>());
    const int endError = (input.Byte() & 1U) != 0 ? ECONNRESET : 0;
    const std::string stream = Stream(input);
    const Outcome expected = Cut(stream);

    s_Server.Serve({stream}, expected, endError);
    for (const std::size_t most : {std::size_t{200}, s_BufferSize}) {
        s_Server.Serve(Pieces(stream, [&] { return 1 + sizes.Below(most); }), expected, endError);
    }
    if (stream.size() <= 128) {
        s_Server.Serve(Pieces(stream, [] { return std::size_t{1}; }), expected, endError);
    }
    if (stream.size() <= 40) {
        for (std::size_t first = 1; first < stream.size(); ++first) {
            s_Server.Serve({stream.substr(0, first), stream.substr(first)}, expected, endError);
        }
    }
    return 0;
}
