#include <internal/unix/IpcMsgQueue.h>

#include "support/BlockedThread.h"
#include "support/CapturedStdout.h"
#include "support/Interpose.h"
#include "support/QueueKey.h"
#include "support/RawQueue.h"
#include "support/ThrownException.h"
#include "support/interpose/Interposed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace VelaHost_Ipc;
using namespace velahost_test;
using ::testing::ElementsAre;
using VelaHost_Utility::Exception;

constexpr unsigned int s_RemoveLine = 72;
constexpr unsigned int s_CreateLine = 79;
constexpr unsigned int s_SendLine = 91;
constexpr unsigned int s_ReceiveLine = 104;

/// Success when `action` throws the `IpcMsgException` of that line and logs it once.
template <typename Action>
::testing::AssertionResult Fails(Action&& action, unsigned int line, int errnoValue = 0)
{
    const Failure expected{0x2FFF, "IpcMsgException", "include/internal/unix/IpcMsgQueue", line,
                           errnoValue};
    CapturedStdout output;
    ::testing::AssertionResult result =
        Throws<IpcMsgException>(std::forward<Action>(action), expected);
    const std::string logged = output.Stop();
    if (result && logged != expected.LogLine()) {
        return ::testing::AssertionFailure() << "logged: " << logged;
    }
    return result;
}

IpcMsgBuf Message(std::int32_t type, unsigned int connection, unsigned int category,
                  const std::string& payload)
{
    IpcMsgBuf message{};
    message.mtype = type;
    message.connection = static_cast<std::uint16_t>(connection);
    message.category = static_cast<std::uint16_t>(category);
    std::memcpy(message.data, payload.data(), payload.size());
    return message;
}

std::string Payload(const IpcMsgBuf& message, int length)
{
    return {reinterpret_cast<const char*>(message.data), static_cast<std::size_t>(length)};
}

// IpcMsgException

TEST(IpcMsgException, IsAnExceptionWithOneFieldMore)
{
    EXPECT_TRUE((std::is_base_of_v<Exception, IpcMsgException>));
    EXPECT_EQ(sizeof(IpcMsgException), sizeof(Exception) + sizeof(void*));
    CapturedStdout output;
    const IpcMsgException e(s_QueueReceiveFailed, 0x12345678);
    int stored = 0;
    std::memcpy(&stored, reinterpret_cast<const char*>(&e) + sizeof(Exception), sizeof stored);
    EXPECT_EQ(stored, 0x12345678);
    EXPECT_EQ(e.GetErrno(), 0x12345678);
}

TEST(IpcMsgException, LogsItselfOnceAndHoldsNoErrnoOfItsOwn)
{
    CapturedStdout output;
    errno = EPERM;
    const IpcMsgException e(s_QueueSendFailed);
    EXPECT_EQ(output.Stop(), "IpcMsgException at include/internal/unix/IpcMsgQueue:91\n");
    EXPECT_EQ(e.GetErrno(), 0);
    EXPECT_EQ(e.GetErrorCode(), 0x2FFFU);
    EXPECT_EQ(e.GetText(), "IpcMsgException");
}

// Opening

struct Opening : ::testing::Test
{
    IpcMsgQueue Open(bool recreate) const
    {
        return IpcMsgQueue(m_Key.GetPath(), m_Key.GetId(), recreate);
    }

    QueueKey m_Key;
};

using IpcMsgQueueOpening = Opening;

TEST_F(IpcMsgQueueOpening, HoldsNothingButTheIdentifier)
{
    const IpcMsgQueue queue = Open(false);
    EXPECT_EQ(sizeof queue, 4U);
    int stored = -1;
    std::memcpy(&stored, &queue, sizeof stored);
    EXPECT_EQ(stored, m_Key.FindQueue());
    EXPECT_EQ(queue.GetId(), m_Key.FindQueue());
}

TEST_F(IpcMsgQueueOpening, CreatesWithMode0766WhateverTheUmask)
{
    for (const bool recreate : {false, true}) {
        for (const mode_t mask : {0777U, 0U}) {
            const mode_t previous = umask(mask);
            const IpcMsgQueue queue = Open(recreate);
            umask(previous);
            EXPECT_EQ(RawQueue(queue.GetId()).GetState().msg_perm.mode, 0766);
            RawQueue(queue.GetId()).Remove();
        }
    }
}

TEST_F(IpcMsgQueueOpening, AsksForAnExistingQueueThenCreatesWithoutExclusion)
{
    std::vector<std::pair<key_t, int>> requests;
    Hook watch(interposed::msgget, [&](key_t key, int flags) -> std::optional<int> {
        requests.emplace_back(key, flags);
        return std::nullopt;
    });
    const CallCounter controls("msgctl");
    Open(true);
    EXPECT_THAT(requests, ElementsAre(std::pair(m_Key.GetKey(), 0),
                                      std::pair(m_Key.GetKey(), IPC_CREAT | 0766)));
    EXPECT_EQ(controls.GetCallCount(), 0U);
}

TEST_F(IpcMsgQueueOpening, MakesItsKeyFromPathAndId)
{
    std::vector<std::pair<std::string, int>> keys;
    Hook watch(interposed::ftok, [&](const char* path, int id) -> std::optional<key_t> {
        keys.emplace_back(path, id);
        return std::nullopt;
    });
    const IpcMsgQueue queue = Open(false);
    EXPECT_THAT(keys, ElementsAre(std::pair(std::string(m_Key.GetPath()), int{m_Key.GetId()})));
    EXPECT_EQ(queue.GetId(), m_Key.FindQueue());
}

TEST_F(IpcMsgQueueOpening, UsesAnExistingQueueWithItsContents)
{
    const RawQueue existing(msgget(m_Key.GetKey(), IPC_CREAT | 0600));
    existing.Send(7, "kept");
    const CallCounter requests("msgget");
    const IpcMsgQueue queue = Open(false);
    EXPECT_EQ(requests.GetCallCount(), 1U);
    EXPECT_EQ(queue.GetId(), existing.GetId());
    EXPECT_EQ(existing.GetState().msg_perm.mode, 0600);
    EXPECT_EQ(existing.TryReceive(7), "kept");
}

TEST_F(IpcMsgQueueOpening, RecreatingDiscardsTheMessagesAndChangesTheIdentifier)
{
    const IpcMsgQueue first = Open(false);
    RawQueue(first.GetId()).Send(1, "gone");
    const IpcMsgQueue second = Open(true);
    EXPECT_NE(second.GetId(), first.GetId());
    EXPECT_EQ(second.GetId(), m_Key.FindQueue());
    EXPECT_EQ(RawQueue(second.GetId()).GetMessageCount(), 0U);
    EXPECT_EQ(RawQueue(second.GetId()).GetState().msg_perm.mode, 0766);
    EXPECT_THROW(RawQueue(first.GetId()).GetState(), std::system_error);
}

TEST_F(IpcMsgQueueOpening, RecreatesAQueueWhoseIdentifierIs0)
{
    std::vector<std::pair<int, int>> removed;
    Hook get(interposed::msgget,
             [](key_t, int flags) -> std::optional<int> { return flags == 0 ? 0 : 4712; });
    Hook control(interposed::msgctl,
                 [&](int id, int command, msqid_ds* state) -> std::optional<int> {
                     EXPECT_EQ(state, nullptr);
                     removed.emplace_back(id, command);
                     return 0;
                 });
    EXPECT_EQ(Open(false).GetId(), 0);
    EXPECT_TRUE(removed.empty());
    EXPECT_EQ(Open(true).GetId(), 4712);
    EXPECT_THAT(removed, ElementsAre(std::pair(0, IPC_RMID)));
}

TEST_F(IpcMsgQueueOpening, SharesAQueueThatAnotherProcessCreatesMeanwhile)
{
    std::optional<int> others;
    Hook race(interposed::msgget, [&](key_t key, int flags) -> std::optional<int> {
        if (flags == 0) {
            others = msgget(key, IPC_CREAT | 0766);
            errno = ENOENT;
            return -1;
        }
        return std::nullopt;
    });
    EXPECT_EQ(Open(false).GetId(), others);
}

TEST_F(IpcMsgQueueOpening, UsesTheKeyMinus1WhenThereIsNoSuchPath)
{
    std::vector<std::pair<key_t, int>> requests;
    Hook watch(interposed::msgget, [&](key_t key, int flags) -> std::optional<int> {
        requests.emplace_back(key, flags);
        errno = ENOENT;
        return flags == 0 ? -1 : 4711;
    });
    const IpcMsgQueue queue((std::string(m_Key.GetPath()) + "-absent").c_str(), 'v', false);
    EXPECT_THAT(requests, ElementsAre(std::pair(-1, 0), std::pair(-1, IPC_CREAT | 0766)));
    EXPECT_EQ(queue.GetId(), 4711);
}

TEST_F(IpcMsgQueueOpening, ThrowsWhenTheOldQueueCannotBeRemoved)
{
    const IpcMsgQueue queue = Open(false);
    const FailingCall removal("msgctl", EPERM);
    const CallCounter requests("msgget");
    EXPECT_TRUE(Fails([&] { Open(true); }, s_RemoveLine));
    EXPECT_TRUE(removal.WasHit());
    EXPECT_EQ(requests.GetCallCount(), 1U);
    EXPECT_EQ(m_Key.FindQueue(), queue.GetId());
}

TEST_F(IpcMsgQueueOpening, ThrowsWhenTheQueueCannotBeCreated)
{
    for (const bool recreate : {false, true}) {
        const FailingCall creation("msgget", ENOSPC, 2);
        EXPECT_TRUE(Fails([&] { Open(recreate); }, s_CreateLine));
        EXPECT_TRUE(creation.WasHit());
    }
    EXPECT_EQ(m_Key.FindQueue(), -1);
}

TEST_F(IpcMsgQueueOpening, ThrowsWhenTheQueueIsForbidden)
{
    Open(false);
    const FailingCall forbidden("msgget", EACCES, 1, FailingCall::forGood);
    EXPECT_TRUE(Fails([&] { Open(true); }, s_CreateLine));
    EXPECT_EQ(forbidden.GetCallCount(), 2U);
}

TEST_F(IpcMsgQueueOpening, ThrowsWhenRecreatingFailsAfterTheRemoval)
{
    Open(false);
    const FailingCall creation("msgget", ENOSPC, 2);
    EXPECT_TRUE(Fails([&] { Open(true); }, s_CreateLine));
    EXPECT_EQ(m_Key.FindQueue(), -1);
}

TEST_F(IpcMsgQueueOpening, LeavesTheQueueBehind)
{
    const int id = Open(true).GetId();
    EXPECT_EQ(m_Key.FindQueue(), id);
}

// Sending and receiving

struct Exchange : Opening
{
    /// Success when a receive that waits already fails because of `interruption`.
    template <typename Interruption>
    ::testing::AssertionResult FailsMeanwhile(Interruption&& interruption, int errnoValue) const
    {
        const auto receive = [&] {
            std::exception_ptr thrown;
            BlockedThread receiver([&] {
                IpcMsgBuf message{};
                try {
                    m_Queue.Receive(message, 9);
                } catch (const IpcMsgException&) {
                    thrown = std::current_exception();
                }
            });
            receiver.WaitUntilReceiving();
            interruption(receiver);
            receiver.Join();
            if (thrown) {
                std::rethrow_exception(thrown);
            }
        };
        return Fails(receive, s_ReceiveLine, errnoValue);
    }

    IpcMsgQueue m_Queue = Open(true);
    RawQueue m_Raw{m_Queue.GetId()};
};

using IpcMsgQueueSend = Exchange;
using IpcMsgQueueReceive = Exchange;
using IpcMsgQueueDiscard = Exchange;
using IpcMsgQueueThreads = Exchange;

TEST_F(IpcMsgQueueSend, CountsTheFirstWordSo4BytesFollowThePayload)
{
    for (const int length : {0, 1, 12, 499, 500}) {
        const std::string payload(static_cast<std::size_t>(length), 'p');
        m_Queue.Send(Message(77, 0x1234, 19, payload), length);
        EXPECT_EQ(m_Raw.GetState().__msg_cbytes, static_cast<msglen_t>(8 + length));
        EXPECT_EQ(m_Raw.TryReceive(77), MessageText(0x1234, 19, payload)) << length;
    }
}

TEST_F(IpcMsgQueueSend, TakesTheBytesBehindThePayloadFromTheRecord)
{
    m_Queue.Send(Message(77, 1, 2, "payloadBEHINDIT"), 7);
    EXPECT_EQ(m_Raw.TryReceive(77), std::string("\1\0\2\0payloadBEHI", 15));
}

TEST_F(IpcMsgQueueSend, TakesARecordAtAnyAlignment)
{
    char memory[sizeof(IpcMsgBuf) + 8] = {};
    for (std::size_t offset = 0; offset < 8; ++offset) {
        const IpcMsgBuf original = Message(77, 3, 4, "aligned");
        auto& message = *reinterpret_cast<IpcMsgBuf*>(memory + offset);
        std::memcpy(memory + offset, &original, sizeof original);
        m_Queue.Send(message, 7);
        EXPECT_EQ(m_Queue.Receive(message, 77), 15);
        EXPECT_EQ(std::memcmp(&message, &original, sizeof original), 0);
    }
}

TEST_F(IpcMsgQueueSend, NeverAsksTheSystemToWait)
{
    int flags = 0;
    Hook watch(interposed::msgsnd,
               [&](int, const void*, std::size_t, int given) -> std::optional<int> {
                   flags = given;
                   return std::nullopt;
               });
    m_Queue.Send(Message(77, 0, 0, ""), 0);
    EXPECT_EQ(flags, IPC_NOWAIT);
}

TEST_F(IpcMsgQueueSend, ThrowsAtOnceWhenTheQueueIsFull)
{
    Fill(m_Raw);
    const std::size_t count = m_Raw.GetMessageCount();
    EXPECT_TRUE(Fails([&] { m_Queue.Send(Message(77, 0, 0, "x"), 1); }, s_SendLine));
    EXPECT_EQ(m_Raw.GetMessageCount(), count);
}

TEST_F(IpcMsgQueueSend, ThrowsWhenTheQueueHasGone)
{
    m_Raw.Remove();
    EXPECT_TRUE(Fails([&] { m_Queue.Send(Message(77, 0, 0, "x"), 1); }, s_SendLine));
}

TEST_F(IpcMsgQueueSend, ThrowsForEveryErrorOfTheSystemWithoutKeepingIt)
{
    for (const int error : {EACCES, EAGAIN, EFAULT, EIDRM, EINTR, EINVAL, ENOMEM, ENOMSG}) {
        const FailingCall failing("msgsnd", error);
        EXPECT_TRUE(Fails([&] { m_Queue.Send(Message(77, 0, 0, "x"), 1); }, s_SendLine));
    }
    EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
}

TEST_F(IpcMsgQueueSend, RefusesALengthOutOfRangeWithoutAskingTheSystem)
{
    const CallCounter calls("msgsnd");
    for (const int length : {-1, -8, 501, INT_MAX, INT_MAX - 8, INT_MIN}) {
        EXPECT_TRUE(Fails([&] { m_Queue.Send(Message(77, 0, 0, ""), length); }, s_SendLine));
    }
    EXPECT_EQ(calls.GetCallCount(), 0U);
}

TEST_F(IpcMsgQueueSend, RefusesAMessageTypeBelow1)
{
    for (const int type : {0, -1, INT_MIN}) {
        EXPECT_TRUE(Fails([&] { m_Queue.Send(Message(type, 0, 0, ""), 0); }, s_SendLine));
    }
    m_Queue.Send(Message(INT_MAX, 0, 0, ""), 0);
    EXPECT_EQ(m_Raw.TryReceive(INT_MAX), MessageText(0, 0, ""));
}

TEST_F(IpcMsgQueueReceive, ReturnsTheCountOfText)
{
    for (const int length : {0, 1, 12, 499, 500}) {
        const std::string payload(static_cast<std::size_t>(length), 'q');
        m_Raw.Send(9, MessageText(0xFFFE, 0x0102, payload));
        IpcMsgBuf message{};
        EXPECT_EQ(m_Queue.Receive(message, 9), 8 + length);
        EXPECT_EQ(std::int32_t{message.mtype}, 9);
        EXPECT_EQ(std::uint16_t{message.connection}, 0xFFFE);
        EXPECT_EQ(std::uint16_t{message.category}, 0x0102);
        EXPECT_EQ(Payload(message, length), payload);
    }
}

TEST_F(IpcMsgQueueReceive, AsksForAtMost508BytesAndWaits)
{
    std::size_t size = 0;
    long type = 0;
    int flags = -1;
    Hook watch(interposed::msgrcv,
               [&](int, void*, std::size_t most, long wanted, int given) -> std::optional<ssize_t> {
                   size = most;
                   type = wanted;
                   flags = given;
                   return std::nullopt;
               });
    m_Raw.Send(9, MessageText(0, 0, ""));
    IpcMsgBuf message{};
    m_Queue.Receive(message, 9);
    EXPECT_EQ(size, 508U);
    EXPECT_EQ(type, 9);
    EXPECT_EQ(flags, 0);
}

TEST_F(IpcMsgQueueReceive, WaitsForExactlyThatType)
{
    IpcMsgBuf message{};
    int count = 0;
    {
        BlockedThread receiver([&] { count = m_Queue.Receive(message, 9); });
        m_Raw.Send(8, MessageText(0, 0, "other"));
        m_Raw.Send(10, MessageText(0, 0, "other"));
        receiver.WaitUntilReceiving();
        m_Raw.Send(9, MessageText(0, 0, "mine"));
    }
    EXPECT_EQ(count, 12);
    EXPECT_EQ(Payload(message, 4), "mine");
    EXPECT_EQ(m_Raw.GetMessageCount(), 2U);
}

TEST_F(IpcMsgQueueReceive, LeavesTheRestOfTheRecordAsItWas)
{
    IpcMsgBuf message;
    std::memset(&message, 0x5A, sizeof message);
    m_Raw.Send(9, "abcdefg");
    EXPECT_EQ(m_Queue.Receive(message, 9), 7);
    const auto* bytes = reinterpret_cast<const char*>(&message);
    EXPECT_EQ(std::string(bytes + 4, 7), "abcdefg");
    EXPECT_EQ(std::string(bytes + 11, sizeof message - 11),
              std::string(sizeof message - 11, '\x5A'));
}

TEST_F(IpcMsgQueueReceive, NeverWritesBehindA512ByteRecord)
{
    struct
    {
        IpcMsgBuf message;
        char behind[8];
    } guarded;
    std::memset(&guarded, 0x5A, sizeof guarded);
    m_Raw.Send(9, std::string(508, 'x'));
    EXPECT_EQ(m_Queue.Receive(guarded.message, 9), 508);
    EXPECT_EQ(std::string(guarded.behind, sizeof guarded.behind), std::string(8, '\x5A'));
    EXPECT_EQ(guarded.message.data[503], 'x');
}

TEST_F(IpcMsgQueueReceive, ReturnsMinus1WhenTheSystemReportsNoMessage)
{
    IpcMsgBuf message{};
    CapturedStdout output;
    const FailingCall none("msgrcv", ENOMSG);
    EXPECT_EQ(m_Queue.Receive(message, 9), -1);
    EXPECT_EQ(errno, ENOMSG);
    EXPECT_EQ(output.Stop(), "");
}

TEST_F(IpcMsgQueueReceive, ThrowsForEveryOtherErrorAndKeepsIt)
{
    IpcMsgBuf message{};
    for (const int error : {E2BIG, EACCES, EFAULT, EIDRM, EINTR, EINVAL, ENOMEM, EAGAIN}) {
        const FailingCall failing("msgrcv", error);
        EXPECT_TRUE(Fails([&] { m_Queue.Receive(message, 9); }, s_ReceiveLine, error));
    }
}

void IgnoreSignal(int /*signal*/) {}

TEST_F(IpcMsgQueueReceive, ThrowsWhenASignalInterruptsItRestartableOrNot)
{
    for (const int flags : {0, SA_RESTART}) {
        struct sigaction action = {};
        action.sa_handler = IgnoreSignal;
        action.sa_flags = flags;
        ASSERT_EQ(sigaction(SIGUSR2, &action, nullptr), 0);
        EXPECT_TRUE(
            FailsMeanwhile([](BlockedThread& receiver) { receiver.Signal(SIGUSR2); }, EINTR));
    }
}

TEST_F(IpcMsgQueueReceive, ThrowsWhenTheQueueIsRemovedUnderIt)
{
    EXPECT_TRUE(FailsMeanwhile([&](BlockedThread&) { m_Raw.Remove(); }, EIDRM));
}

TEST_F(IpcMsgQueueReceive, ThrowsForAMessageThatIsTooLongAndLeavesIt)
{
    m_Raw.Send(9, std::string(509, 'x'));
    IpcMsgBuf message{};
    EXPECT_TRUE(Fails([&] { m_Queue.Receive(message, 9); }, s_ReceiveLine, E2BIG));
    EXPECT_EQ(m_Raw.GetMessageCount(), 1U);
}

TEST_F(IpcMsgQueueDiscard, RemovesTheFirstOfTheTypeWhateverItsSize)
{
    m_Raw.Send(8, "other");
    m_Raw.Send(9, std::string(8192, 'x'));
    m_Raw.Send(9, "");
    m_Raw.Send(9, "third");
    m_Queue.Discard(9);
    EXPECT_EQ(m_Raw.GetMessageCount(), 3U);
    m_Queue.Discard(9);
    EXPECT_EQ(m_Raw.TryReceive(9), "third");
    EXPECT_EQ(m_Raw.TryReceive(8), "other");
}

TEST_F(IpcMsgQueueDiscard, NeitherWaitsNorThrowsWhenThereIsNone)
{
    m_Raw.Send(8, "other");
    m_Queue.Discard(9);
    EXPECT_EQ(m_Raw.GetMessageCount(), 1U);
    m_Raw.Remove();
    m_Queue.Discard(8);
}

TEST_F(IpcMsgQueueThreads, OneHandleServesSeveralThreads)
{
    constexpr int threadCount = 4;
    constexpr int messagesPerThread = 100;
    std::vector<std::thread> threads;
    for (int number = 1; number <= threadCount; ++number) {
        threads.emplace_back([this, number] {
            // Each sends to itself.
            for (int i = 0; i < messagesPerThread; ++i) {
                const std::string payload = std::to_string(number) + "/" + std::to_string(i);
                m_Queue.Send(Message(number, 0, 2, payload), static_cast<int>(payload.size()));
                IpcMsgBuf message{};
                const int count = m_Queue.Receive(message, number);
                EXPECT_EQ(Payload(message, count - 8), payload);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(m_Raw.GetMessageCount(), 0U);
}

} // namespace
