#include "support/CapturedStdout.h"
#include "support/ChildProcess.h"
#include "support/EchoClient.h"
#include "support/QueueKey.h"
#include "support/RawQueue.h"
#include "support/RecordingLogAdapter.h"
#include "support/Soak.h"

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <random>
#include <sched.h>
#include <string>
#include <utility>
#include <vector>

// What any process can put on the queue: records of every length, every category and control code,
// control messages of every length. Each must be told in the logs as promised and be gone, and the
// next client must be served as if nothing had been.

namespace {

using namespace VelaHost_Ipc;
using namespace velahost_test;

using Manager = IpcConnectionManager<IpcMsgQueueTransport>;

constexpr long s_Server = 1;
constexpr unsigned int s_Control = 1;
constexpr std::size_t s_LongestText = 8192; // what the system takes, unless set otherwise
constexpr int s_Pid = 0x3D0902;             // as long as one can be; no part of it is 1 or negative
constexpr int s_NoId = 0x7F7F7F7F;          // no part of it has been given

// Of all 16-bit numbers, every one in the full size, else a sample with all low and all high bytes.
const unsigned int s_Step = IsSoakSelected("full") ? 1 : 101;

/// What one message must lead to.
struct Told
{
    std::vector<LogCall> transport = {};
    std::vector<LogCall> manager = {};
    std::string output = {};
    std::string reply = {}; ///< To the process that the message names; "" for none.

    bool operator==(const Told&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Told& told)
{
    for (const auto* calls : {&told.transport, &told.manager}) {
        for (const LogCall& call : *calls) {
            out << call << "; ";
        }
        out << "| ";
    }
    return out << told.output << "| reply of " << told.reply.size() << " bytes";
}

LogCall RunFailed(const std::string& errnoText)
{
    return LogCall::Error("IpcMsgException in Run() errno=0x" + errnoText);
}

LogCall Received(const std::string& text)
{
    std::uint16_t header[2]; // connection, category
    std::memcpy(header, text.data(), sizeof header);
    // As many bytes as were counted, though 4 of these lay before the payload.
    return LogCall::RcvMsg(header[1], header[0],
                           text.substr(sizeof header) + std::string(sizeof header, '\0'));
}

std::string Record(unsigned int category, const std::string& payload)
{
    return MessageText(0xABCD, category, payload);
}

class EchoHandler final : public IpcMsgHandler
{
public:
    EchoHandler(const IpcMsgQueue& queue, const Manager& manager)
        : m_Queue(queue), m_Manager(manager)
    {}

    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        msg.mtype = m_Manager.RequireConnection(msg.connection).pid;
        m_Queue.Send(msg, length);
    }

    void HandleIpcClose(int /*connectionId*/) override { ++m_Closed; }

    int m_Closed = 0;

private:
    const IpcMsgQueue& m_Queue;
    const Manager& m_Manager;
};

/// Keeps which connection each message names, and what the manager has under that id.
class LookingHandler final : public IpcMsgHandler
{
public:
    using Look = std::pair<int, const IpcMsgQueueTransport::Connection*>;

    explicit LookingHandler(const Manager& manager) : m_Manager(manager) {}

    void HandleIpcMessage(IpcMsgBuf& msg, int /*length*/) override
    {
        const int id = msg.connection;
        m_Looks.emplace_back(id, m_Manager.GetConnection(id));
    }

    std::vector<Look> m_Looks;

private:
    const Manager& m_Manager;
};

/// A service with an echo for good clients and nobody for the other categories.
class HostileQueue : public testing::Test
{
protected:
    HostileQueue()
    {
        m_Transport.Init();
        m_Manager.RegisterHandler(&m_Echo, s_EchoCategory);
    }

    /// Has a stranger's process send these texts, and compares what one pass for each leads to with
    /// what `expected` says before.
    template <typename Expected>
    void ExpectTold(const std::vector<std::string>& texts, const Expected& expected)
    {
        ChildProcess stranger([&] {
            for (const std::string& text : texts) {
                SendLeavingRoom(text);
            }
            return 0;
        });
        for (const std::string& text : texts) {
            const Told told = expected(text);
            ASSERT_EQ(Run(), told) << "text of " << text.size() << " bytes";
        }
        EXPECT_EQ(stranger.WaitForExitStatus(), 0);
        EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
        ExpectGoodClientIsServed();
    }

    /// Waits for room on the queue, also for the replies, which a full one would lose.
    void SendLeavingRoom(const std::string& text) const
    {
        while (m_Raw.GetMessageCount() > 4) {
            sched_yield();
        }
        m_Raw.Send(s_Server, text);
    }

    Told Run()
    {
        Told told;
        {
            CapturedStdout output;
            m_Transport.Run();
            told.output = output.Stop();
        }
        told.transport = m_Log.Take();
        told.manager = m_ManagerLog.Take();
        for (Connection* connection : m_Manager.connections) {
            if (!connection->IsFree()) {
                told.reply = m_Raw.TryReceive(connection->pid).value_or("");
                connection->pid = 0;
            }
        }
        return told;
    }

    /// What a control message leads to while no connection is in use.
    Told ExpectControl(const std::string& text)
    {
        std::int32_t words[3] = {}; // code, process id, connection id; zero where the record ends
        std::memcpy(words, text.data() + 4, std::min(sizeof words, text.size() - 4));
        const auto [code, pid, id] = words;
        Told told{{Received(text)}};
        if (code == 1) {
            told.transport.push_back(LogCall::Debug("ConnectReq(PID=" + std::to_string(pid) + ")"));
            told.transport.push_back(LogCall::SendMsg(1, 1, ControlPayload(2, pid, 1)));
            if (pid == 0) {
                told.transport.push_back(RunFailed("0"));
                told.output = "IpcMsgException at include/internal/unix/IpcMsgQueue:91\n";
            } else {
                told.transport.push_back(
                    LogCall::Debug("Etsablished connection 1 to PID " + std::to_string(pid)));
                told.reply = MessageText(0, s_Control, ControlPayload(2, pid, 1));
            }
        } else if (code == 3) {
            told.transport.push_back(
                LogCall::Debug("DisconnectReq(procId=" + std::to_string(id) + ")"));
            told.transport.push_back(RunFailed("0"));
            told.output = "IpcMsgException at include/internal/unix/IpcConnectionManager:147\n";
        } else if (code != 6) {
            told.transport.push_back(
                LogCall::Error("Unexpected Ctrl message: " + std::to_string(code)));
        }
        return told;
    }

    void ExpectGoodClientIsServed()
    {
        constexpr int messageCount = 100;
        ChildProcess client([&] { return RunEchoClient(m_Raw.GetId(), messageCount); });
        ServeUntilClosed();
        EXPECT_EQ(client.WaitForExitStatus(), 0);
    }

    void ServeUntilClosed()
    {
        const int closed = m_Echo.m_Closed;
        while (m_Echo.m_Closed == closed) {
            m_Transport.Run();
            // A client that fails removes the queue.
            m_Raw.GetState();
        }
    }

    using Connection = IpcMsgQueueTransport::Connection;

    QueueKey m_Key;
    RecordingLogAdapter m_Log;
    RecordingLogAdapter m_ManagerLog;
    Manager m_Manager{&m_ManagerLog};
    IpcMsgQueueTransport m_Transport{{m_Key.GetPath(), m_Key.GetId()}, m_Manager, &m_Log};
    RawQueue m_Raw{m_Transport.GetQueue().GetId()};
    EchoHandler m_Echo{m_Transport.GetQueue(), m_Manager};
};

TEST_F(HostileQueue, LosesARecordOfEveryLengthThatIsTooLong)
{
    std::vector<std::string> texts;
    for (std::size_t length = s_MaxQueueText + 1; length <= s_LongestText; ++length) {
        texts.emplace_back(length, static_cast<char>(length));
        texts.push_back(Record(s_Control, ControlPayload(6, 0, 0)));
    }
    ExpectTold(texts, [this](const std::string& text) {
        if (text.size() <= s_MaxQueueText) {
            return ExpectControl(text);
        }
        return Told{
            {RunFailed("7")}, {}, "IpcMsgException at include/internal/unix/IpcMsgQueue:104\n"};
    });
}

TEST_F(HostileQueue, LosesARecordOfEveryLengthThatIsTooShort)
{
    std::vector<std::string> texts;
    for (int byte = 0; byte < 256; ++byte) {
        for (std::size_t length = 0; length < s_MsgHeaderSize; ++length) {
            texts.emplace_back(length, static_cast<char>(byte));
        }
    }
    ExpectTold(texts, [](const std::string& text) {
        return Told{
            {LogCall::Error("Record of " + std::to_string(text.size()) + " bytes dropped")}};
    });
}

TEST_F(HostileQueue, TellsEveryCategoryThatNobodyHandles)
{
    std::vector<std::string> texts;
    std::vector<unsigned int> categories;
    for (unsigned int category = 0; category <= 0xFFFF; category += s_Step) {
        if (category != s_Control && category != s_EchoCategory) {
            texts.push_back(Record(category, std::string(category % 4, 'p')));
            categories.push_back(category);
        }
    }
    auto category = categories.begin();
    ExpectTold(texts, [&](const std::string& text) {
        return Told{{Received(text)},
                    {LogCall::Error("No handler for rcvd msg (category " +
                                    std::to_string(*category++) + ")")}};
    });
}

TEST_F(HostileQueue, HandsOverDataWhateverConnectionItNames)
{
    ExpectGoodClientIsServed();
    const Connection* const freed = m_Manager.GetConnection(1);
    ASSERT_NE(freed, nullptr);
    ASSERT_TRUE(freed->IsFree());
    m_Log.Take();

    constexpr unsigned int lookedAt = s_EchoCategory + 1;
    LookingHandler looking(m_Manager);
    m_Manager.RegisterHandler(&looking, lookedAt);
    std::vector<std::string> texts;
    std::vector<LookingHandler::Look> looks;
    for (const int id : {0, 1, 2, 0x7FFF, 0x8000, 0xFFFF}) {
        for (const unsigned int category : {lookedAt, s_EchoCategory}) {
            texts.push_back(MessageText(static_cast<unsigned int>(id), category, "data"));
        }
        looks.emplace_back(id, id == 1 ? freed : nullptr);
    }
    ExpectTold(texts, [&](const std::string& text) {
        std::uint16_t header[2]; // connection, category
        std::memcpy(header, text.data(), sizeof header);
        Told told{{Received(text)}};
        if (header[1] == s_EchoCategory) {
            // It looks for the process to answer to: there is no connection, or nobody has it.
            told.transport.push_back(RunFailed("0"));
            told.output =
                header[0] == 1
                    ? "IpcMsgException at include/internal/unix/IpcMsgQueue:91\n"
                    : "IpcMsgException at include/internal/unix/IpcConnectionManager:147\n";
        }
        return told;
    });
    EXPECT_EQ(looking.m_Looks, looks);
    EXPECT_EQ(m_Manager.GetConnectionCount(), 1);
}

TEST_F(HostileQueue, TellsEveryUnknownControlCode)
{
    std::vector<int> codes;
    for (int code = -0x8000; code < 0x8000; code += static_cast<int>(s_Step)) {
        codes.push_back(code);
    }
    for (int high = -0x8000; high < 0x8000; high += 0x101) {
        for (const int low : {0, 1, 3, 6}) {
            codes.push_back(high * 0x10000 + low);
        }
    }
    codes.insert(codes.end(), {INT_MIN, INT_MAX});
    std::vector<std::string> texts;
    for (const int code : codes) {
        texts.push_back(Record(s_Control, ControlPayload(code, s_Pid, s_NoId)));
    }
    ExpectTold(texts, [this](const std::string& text) { return ExpectControl(text); });
}

TEST_F(HostileQueue, ActsOnControlMessagesOfEveryLengthAsFarAsTheyGo)
{
    std::vector<std::string> texts;
    for (const int code : {0, 1, 2, 3, 4, 5, 6, -1}) {
        for (std::size_t length = 0; length <= s_MaxQueuePayload; ++length) {
            std::string payload = ControlPayload(code, s_Pid, s_NoId);
            payload.resize(length, '\xEE');
            texts.push_back(Record(s_Control, payload));
        }
    }
    ExpectTold(texts, [this](const std::string& text) { return ExpectControl(text); });
}

TEST_F(HostileQueue, ServesAGoodClientBesideAStranger)
{
    constexpr int messageCount = 10'000;
    ChildProcess stranger([&] {
        std::minstd_rand random(19700101);
        for (;;) {
            std::string text(random() % 1000, '\0');
            for (char& byte : text) {
                byte = static_cast<char>(random() >> 8);
            }
            // Not in the real categories, where it could pass for a client.
            if (text.size() > 4) {
                text[3] = static_cast<char>(text[3] | 1);
            }
            SendLeavingRoom(text);
        }
        return 0;
    });
    ChildProcess client([&] { return RunEchoClient(m_Raw.GetId(), messageCount); });
    CapturedStdout output;
    ServeUntilClosed();
    output.Stop();
    EXPECT_EQ(client.WaitForExitStatus(), 0);
    int errors = 0;
    for (const LogCall& call : m_Log.Take()) {
        errors += call.function == LogCall::Function::Error;
    }
    EXPECT_GT(errors, 10) << "the stranger was not there";
    stranger.Kill(SIGKILL);
    stranger.Wait();
    while (m_Raw.TryReceive(s_Server)) {
    }
    ExpectGoodClientIsServed();
}

} // namespace
