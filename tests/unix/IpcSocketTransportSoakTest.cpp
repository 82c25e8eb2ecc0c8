#include "support/RecordingLogAdapter.h"
#include "support/Soak.h"
#include "support/Sockets.h"
#include "unix/SocketService.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <random>
#include <string>
#include <sys/socket.h>
#include <vector>

// Clients whose streams are made by a generator with a fixed seed, well and badly formed, whole and
// torn, ended in every way, beside one that is always good. After each step the messages that
// arrived and the state of the connection are compared with what the bytes sent so far mean.

namespace {

using namespace VelaHost_Ipc;
using namespace velahost_test;

constexpr std::uint16_t s_WildCategory = 5;
constexpr std::uint16_t s_GoodCategory = 6;
constexpr unsigned int s_Seed = 19700101;
constexpr long s_ShortSoak = 5'000; // steps
constexpr long s_FullSoak = 500'000;
constexpr long s_SmallSoak = 1'000;
constexpr int s_WildClients = 8;

/// What the bytes of one connection mean, read from the whole stream anew each time.
struct Meaning
{
    enum class End { Open, ShortFrame, TooLong };

    explicit Meaning(std::string_view stream, std::size_t bufferSize)
    {
        std::size_t position = 0;
        while (stream.size() - position > 8) {
            std::uint32_t length = 0;
            std::memcpy(&length, stream.data() + position, sizeof length);
            if (length < 8) {
                end = End::ShortFrame;
                return;
            }
            if (length > bufferSize || length > stream.size() - position) {
                break;
            }
            std::uint16_t category = 0;
            std::memcpy(&category, stream.data() + position + 6, sizeof category);
            // Noise may happen to be a frame for nobody.
            if (category == s_WildCategory) {
                payloads.emplace_back(stream.substr(position + 8, length - 8));
            }
            position += length;
        }
        // A full buffer is noticed when another byte is there to be read.
        if (stream.size() - position > bufferSize) {
            end = End::TooLong;
        }
    }

    std::vector<std::string> payloads;
    End end = End::Open;
};

class Soak
{
public:
    Soak() : m_Random(s_Seed), m_Service(&m_Log, &m_Log), m_Good(m_Service.Connect())
    {
        m_Service.manager.RegisterHandler(&m_WildHandler, s_WildCategory);
        m_Service.manager.RegisterHandler(&m_GoodHandler, s_GoodCategory);
        m_GoodHandler.onMessage = [this](const IpcMsgBuf& msg, int length) {
            IpcMsgBuf reply{};
            std::memcpy(reply.data, msg.data, static_cast<std::size_t>(length));
            EXPECT_TRUE(
                m_Service.transport.SendMsg(m_Service.Get(1), s_GoodCategory, reply, length));
        };
    }

    void Step()
    {
        m_Log.Take();
        Wild& wild = m_Wild[m_Random() % m_Wild.size()];
        if (wild.client.Get() == -1) {
            Open(wild);
        } else if (wild.position == wild.stream.size() || OneIn(50)) {
            End(wild);
        } else {
            Send(wild);
        }
        if (OneIn(4)) {
            ExchangeGood();
        }
    }

    void CloseAll()
    {
        for (Wild& wild : m_Wild) {
            if (wild.client.Get() != -1) {
                End(wild);
            }
        }
    }

    struct Figures
    {
        long steps, connections, wildMessages, goodMessages, shortFrames, tooLong, resets;
    };

    Figures figures{};
    SocketService& GetService() { return m_Service; }

private:
    struct Wild
    {
        Descriptor client;
        int id = 0;
        std::string stream;       ///< All that it is going to send.
        std::size_t position = 0; ///< How much of it has been sent.
        std::vector<std::string> arrived;
    };

    bool OneIn(unsigned int count) { return m_Random() % count == 0; }

    std::string RandomBytes(std::size_t count)
    {
        std::string bytes(count, '\0');
        std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<char>(m_Random()); });
        return bytes;
    }

    std::string RandomStream()
    {
        std::string stream;
        const auto frames = m_Random() % 12;
        for (auto i = frames; i > 0; --i) {
            static constexpr std::array<unsigned int, 4> s_Sizes{1, 20, 600, 2041};
            stream += Frame(s_WildCategory, RandomBytes(m_Random() % s_Sizes[m_Random() % 4]));
        }
        static constexpr std::array<std::uint32_t, 10> s_BadLengths{
            0, 1, 7, 2049, 4096, 0x10000, 0x7fffffff, 0x80000000, 0xfffffff8, 0xffffffff};
        switch (m_Random() % 4) {
        case 0: // Well formed to the end.
            break;
        case 1: // Torn off.
            stream.resize(stream.size() - std::min<std::size_t>(stream.size(), m_Random() % 30));
            break;
        case 2: // A bad length, and more.
            stream += FrameHeader(s_BadLengths[m_Random() % s_BadLengths.size()], s_WildCategory);
            stream += RandomBytes(m_Random() % 4000);
            break;
        default: // Noise.
            stream += RandomBytes(1 + m_Random() % 4000);
        }
        return stream;
    }

    void Open(Wild& wild)
    {
        wild = Wild{};
        wild.stream = RandomStream();
        // The lowest free id; the table is as long as it ever was.
        wild.id = m_Service.manager.FindFreeConnection().id;
        wild.client = m_Service.Connect();
        ASSERT_FALSE(m_Service.Get(wild.id).IsFree());
        ++figures.connections;
    }

    void Send(Wild& wild)
    {
        static constexpr std::array<std::size_t, 4> s_Parts{1, 9, 300, 5000};
        const std::size_t most =
            std::min(s_Parts[m_Random() % s_Parts.size()], wild.stream.size() - wild.position);
        const std::size_t part = 1 + m_Random() % most;
        WriteAll(wild.client.Get(), std::string_view(wild.stream).substr(wild.position, part));
        wild.position += part;
        WaitForBytes(m_Service.GetSock(wild.id), part);
        m_Service.RunUntilRead(wild.id);
        Compare(wild);
    }

    /// After everything that was sent has been read.
    void Compare(Wild& wild)
    {
        CollectArrived(wild);
        const Meaning meaning(std::string_view(wild.stream).substr(0, wild.position), 2048);
        ASSERT_TRUE(wild.arrived == meaning.payloads) << Describe(wild);
        const bool isClosed = !m_WildHandler.closed.empty();
        ASSERT_EQ(isClosed, meaning.end != Meaning::End::Open) << Describe(wild);
        const auto calls = m_Log.GetCalls();
        const bool isShort = std::any_of(calls.begin(), calls.end(), [](const LogCall& call) {
            return call.function == LogCall::Function::Error && call.text.starts_with("Frame");
        });
        ASSERT_EQ(isShort, meaning.end == Meaning::End::ShortFrame) << Describe(wild);
        if (isClosed) {
            ++(isShort ? figures.shortFrames : figures.tooLong);
            Forget(wild);
        }
    }

    void CollectArrived(Wild& wild)
    {
        for (Received& received : m_WildHandler.TakeMessages()) {
            ASSERT_EQ(received.connection, wild.id);
            wild.arrived.push_back(std::move(received.payload));
            ++figures.wildMessages;
        }
    }

    /// The client goes, in one of the ways in which clients do.
    void End(Wild& wild)
    {
        const int sock = m_Service.GetSock(wild.id);
        switch (m_Random() % 3) {
        case 0:
            wild.client.Close();
            break;
        case 1:
            shutdown(wild.client.Get(), SHUT_WR);
            break;
        default:
            Reset(wild.client);
            ++figures.resets;
        }
        WaitForBytes(sock, 1);
        m_Service.transport.Run();
        CollectArrived(wild);
        const Meaning meaning(std::string_view(wild.stream).substr(0, wild.position), 2048);
        ASSERT_TRUE(wild.arrived == meaning.payloads) << Describe(wild);
        Forget(wild);
    }

    void Forget(Wild& wild)
    {
        ASSERT_EQ(m_WildHandler.closed, std::vector<int>{wild.id}) << Describe(wild);
        m_WildHandler.closed.clear();
        m_GoodHandler.closed.clear();
        ASSERT_TRUE(m_Service.Get(wild.id).IsFree());
        wild.client.Close();
    }

    void ExchangeGood()
    {
        const std::string payload =
            std::to_string(m_GoodNumber++) + "/" + std::string(m_Random() % 480, 'g');
        m_Service.Deliver(m_Good, 1, Frame(s_GoodCategory, payload));
        const auto messages = m_GoodHandler.TakeMessages();
        ASSERT_EQ(messages.size(), 1U);
        ASSERT_EQ(messages.front().payload, payload);
        ASSERT_EQ(ReadExactly(m_Good.Get(), 8 + payload.size()).substr(8), payload);
        ++figures.goodMessages;
    }

    std::string Describe(const Wild& wild) const
    {
        return "step " + std::to_string(figures.steps) + ", cx " + std::to_string(wild.id) + ", " +
               std::to_string(wild.position) + " of " + std::to_string(wild.stream.size()) +
               " bytes sent";
    }

    std::mt19937 m_Random;
    RecordingLogAdapter m_Log;
    RecordingHandler m_WildHandler;
    RecordingHandler m_GoodHandler;
    SocketService m_Service;
    Descriptor m_Good;
    std::array<Wild, s_WildClients> m_Wild;
    long m_GoodNumber = 0;
};

TEST(IpcSocketTransportSoak, LosesNoGoodFrameAmongMalformedOnes)
{
    const long target = SelectSoak(s_ShortSoak, s_FullSoak, s_SmallSoak);
    const std::size_t descriptorsBefore = CountDescriptors();
    // Without the lines about reset connections.
    std::streambuf* const output = std::cout.rdbuf(nullptr);
    Soak::Figures figures{};
    {
        Soak soak;
        long& steps = soak.figures.steps;
        while (steps < target && !testing::Test::HasFatalFailure()) {
            soak.Step();
            ++steps;
        }
        if (!testing::Test::HasFatalFailure()) {
            soak.CloseAll();
        }
        EXPECT_EQ(soak.GetService().CountOpen(), 1);
        EXPECT_LE(soak.GetService().manager.GetConnectionCount(), 1 + s_WildClients);
        figures = soak.figures;
    }
    std::cout.rdbuf(output);
    EXPECT_EQ(CountDescriptors(), descriptorsBefore);
    EXPECT_GT(figures.shortFrames, 0);
    EXPECT_GT(figures.tooLong, 0);
    EXPECT_GT(figures.resets, 0);
    ReportSoak(std::to_string(figures.steps) + " steps, " + std::to_string(figures.connections) +
               " connections, " + std::to_string(figures.wildMessages) +
               " messages among malformed ones, " + std::to_string(figures.goodMessages) +
               " good ones exchanged, " + std::to_string(figures.shortFrames) + " short frames, " +
               std::to_string(figures.tooLong) + " overlong, " + std::to_string(figures.resets) +
               " resets, 0 lost");
}

} // namespace
