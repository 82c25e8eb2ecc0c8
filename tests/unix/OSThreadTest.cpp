#include <VelaHost_OS/Thread.h>

#include "support/Interpose.h"
#include "support/Sanitizers.h"
#include "support/ThrownException.h"
#include "support/interpose/Interposed.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <optional>
#include <pthread.h>
#include <semaphore>
#include <signal.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace velahost_test;
using namespace VelaHost_OS;
using VelaHost_Utility::SystemException;

/// An entry function for any callable: its address is the argument.
void RunCallable(void* callable)
{
    (*static_cast<const std::function<void()>*>(callable))();
}

/// A thread of the library that runs a callable; joined at destruction unless it has been.
class LibraryThread
{
public:
    explicit LibraryThread(std::function<void()> body) : m_Body(std::move(body))
    {
        CreateThread(&RunCallable, 0, &m_Body, &m_Id);
    }
    LibraryThread(const LibraryThread&) = delete;
    LibraryThread& operator=(const LibraryThread&) = delete;
    ~LibraryThread()
    {
        if (!m_Joined) {
            Join();
        }
    }

    unsigned long GetId() const { return m_Id; }
    unsigned int Join()
    {
        m_Joined = true;
        return JoinThread(m_Id);
    }

private:
    std::function<void()> m_Body;
    unsigned long m_Id = 0;
    bool m_Joined = false;
};

/// Raises a flag when its scope is left, however that happens.
class ScopeMark
{
public:
    explicit ScopeMark(std::atomic<bool>& left) : m_Left(left) {}
    ~ScopeMark() { m_Left = true; }

private:
    std::atomic<bool>& m_Left;
};

struct Started
{
    std::binary_semaphore done{0};
    pthread_t self = 0;
    bool detach = false;
};

void NoteStart(void* argument)
{
    auto* started = static_cast<Started*>(argument);
    started->self = pthread_self();
    if (started->detach) {
        pthread_detach(pthread_self());
    }
    started->done.release();
}

TEST(CreateThread, RunsTheEntryFunctionAndTellsTheId)
{
    Started started;
    unsigned long id = 0;
    EXPECT_EQ(CreateThread(&NoteStart, 0, &started, &id), 0U);
    started.done.acquire();
    EXPECT_EQ(id, started.self);
    EXPECT_NE(id, pthread_self());
    EXPECT_EQ(JoinThread(id), 0U);
}

TEST(CreateThread, StartsTheThreadWithoutAPlaceForTheId)
{
    Started started;
    started.detach = true; // Nobody can join it.
    EXPECT_EQ(CreateThread(&NoteStart, 0, &started, nullptr), 0U);
    started.done.acquire();
    EXPECT_NE(started.self, 0U);
}

TEST(CreateThread, HandsEntryAndArgumentToThePlatformAsTheyAre)
{
    Started started;
    unsigned long id = 0;
    int calls = 0;
    const Hook hook(interposed::pthread_create, [&](pthread_t* place,
                                                    const pthread_attr_t* attributes,
                                                    void* (*entry)(void*), void* argument) {
        ++calls;
        EXPECT_EQ(place, &id);
        EXPECT_NE(attributes, nullptr);
        EXPECT_EQ(reinterpret_cast<void*>(entry), reinterpret_cast<void*>(&NoteStart));
        EXPECT_EQ(argument, &started);
        return std::optional<int>();
    });
    CreateThread(&NoteStart, 0, &started, &id);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(JoinThread(id), 0U);
}

/// What a thread's attributes say.
struct Attributes
{
    explicit Attributes(const pthread_attr_t* attributes)
    {
        sched_param parameters{};
        pthread_attr_getdetachstate(attributes, &detachState);
        pthread_attr_getscope(attributes, &scope);
        pthread_attr_getschedpolicy(attributes, &policy);
        pthread_attr_getinheritsched(attributes, &inheritance);
        pthread_attr_getschedparam(attributes, &parameters);
        priority = parameters.sched_priority;
        pthread_attr_getstacksize(attributes, &stackSize);
        pthread_attr_getguardsize(attributes, &guardSize);
    }
    bool operator==(const Attributes&) const = default;

    int detachState = -1;
    int scope = -1;
    int policy = -1;
    int inheritance = -1;
    int priority = -1;
    std::size_t stackSize = 0;
    std::size_t guardSize = 0;
};

TEST(CreateThread, UsesThePlatformsDefaultsWhateverTheIgnoredNumber)
{
    std::vector<Attributes> seen;
    const Hook hook(interposed::pthread_create,
                    [&](pthread_t*, const pthread_attr_t* attributes, void* (*)(void*), void*) {
                        seen.emplace_back(attributes);
                        return std::optional<int>();
                    });
    pthread_attr_t defaults;
    pthread_attr_init(&defaults);
    for (const int ignored : {0, 5, -1}) {
        Started started;
        unsigned long id = 0;
        EXPECT_EQ(CreateThread(&NoteStart, ignored, &started, &id), 0U);
        EXPECT_EQ(JoinThread(id), 0U);
        EXPECT_EQ(seen.back(), Attributes(&defaults)) << ignored;
    }
    EXPECT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen[0].detachState, PTHREAD_CREATE_JOINABLE);
    pthread_attr_destroy(&defaults);
}

TEST(CreateThread, LeavesSignalMaskAndCancellationAlone)
{
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    sigset_t inherited;
    int state = -1;
    int type = -1;
    LibraryThread([&] {
        pthread_sigmask(SIG_SETMASK, nullptr, &inherited);
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    }).Join();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(sigismember(&inherited, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&inherited, SIGUSR1), 0);
    EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(type, PTHREAD_CANCEL_DEFERRED);
}

TEST(CreateThread, ThrowsBeforeAnythingWhenThereAreNoAttributes)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "attributes are not interposed";
    }
    Started started;
    unsigned long id = 17;
    const FailingCall failure("pthread_attr_init", ENOMEM);
    const CallCounter creations("pthread_create");
    const CallCounter destructions("pthread_attr_destroy");
    errno = 31;
    EXPECT_TRUE(Throws<SystemException>([&] { CreateThread(&NoteStart, 0, &started, &id); },
                                        SystemFailure(31)));
    EXPECT_EQ(creations.GetCallCount(), 0U);
    EXPECT_EQ(destructions.GetCallCount(), 0U);
    EXPECT_EQ(id, 17U);
}

TEST(CreateThread, ThrowsWhenThereIsNoThread)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "attributes are not interposed";
    }
    Started started;
    unsigned long id = 17;
    const FailingCall failure("pthread_create", EAGAIN);
    const CallCounter destructions("pthread_attr_destroy");
    errno = 32;
    EXPECT_TRUE(Throws<SystemException>([&] { CreateThread(&NoteStart, 0, &started, &id); },
                                        SystemFailure(32)));
    EXPECT_EQ(destructions.GetCallCount(), 0U);
    EXPECT_FALSE(started.done.try_acquire());
}

TEST(CreateThread, ThrowsThoughTheThreadRunsWhenTheAttributesStay)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "attributes are not interposed";
    }
    Started started;
    unsigned long id = 0;
    const FailingCall failure("pthread_attr_destroy", EINVAL);
    errno = 33;
    EXPECT_TRUE(Throws<SystemException>([&] { CreateThread(&NoteStart, 0, &started, &id); },
                                        SystemFailure(33)));
    started.done.acquire();
    EXPECT_EQ(id, started.self);
    EXPECT_EQ(JoinThread(id), 0U);
}

TEST(JoinThread, ReturnsWhenTheThreadHasEnded)
{
    std::binary_semaphore mayEnd{0};
    std::atomic<bool> ended{false};
    LibraryThread thread([&] {
        mayEnd.acquire();
        ended = true;
    });
    LibraryThread joiner([&] {
        EXPECT_EQ(thread.Join(), 0U);
        EXPECT_TRUE(ended);
    });
    EXPECT_FALSE(ended);
    mayEnd.release();
    EXPECT_EQ(joiner.Join(), 0U);
}

TEST(JoinThread, AsksForNoExitValue)
{
    LibraryThread thread([] {});
    const Hook hook(interposed::pthread_join, [&](pthread_t joined, void** result) {
        EXPECT_EQ(joined, thread.GetId());
        EXPECT_EQ(result, nullptr);
        return std::optional<int>();
    });
    EXPECT_EQ(thread.Join(), 0U);
}

TEST(JoinThread, OnTheCallingThreadReturnsTheErrnoOfTheMoment)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "it takes the join for done";
    }
    for (const int error : {0, EPERM}) {
        errno = error;
        EXPECT_EQ(JoinThread(pthread_self()), static_cast<unsigned int>(error));
    }
}

TEST(JoinThread, OnAJoinedThreadReturnsTheErrnoOfTheMoment)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "it ends the program";
    }
    LibraryThread thread([] {});
    EXPECT_EQ(thread.Join(), 0U);
    for (const int error : {0, EPERM}) {
        errno = error;
        EXPECT_EQ(JoinThread(thread.GetId()), static_cast<unsigned int>(error));
    }
}

TEST(JoinThread, CancelledLeavesTheOtherThreadToBeJoined)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "it does not expect a join to be cancelled";
    }
    std::binary_semaphore mayEnd{0};
    LibraryThread thread([&] { mayEnd.acquire(); });
    std::atomic<bool> returned{false};
    LibraryThread joiner([&] {
        JoinThread(thread.GetId());
        returned = true;
    });
    EXPECT_EQ(CancelThread(joiner.GetId()), 0U);
    EXPECT_EQ(joiner.Join(), 0U);
    EXPECT_FALSE(returned);
    mayEnd.release();
    EXPECT_EQ(thread.Join(), 0U);
}

struct Operation
{
    const char* platformCall;
    unsigned int (*function)(unsigned long);
};

class ThreadOperation : public ::testing::TestWithParam<Operation>
{};

TEST_P(ThreadOperation, ReturnsTheErrnoOfTheMomentWhenThePlatformRefuses)
{
    const FailingCall failure(GetParam().platformCall, ESRCH, 1, FailingCall::forGood);
    for (const int error : {0, EACCES}) {
        errno = error;
        EXPECT_EQ(GetParam().function(pthread_self()), static_cast<unsigned int>(error));
        EXPECT_EQ(errno, error);
    }
    EXPECT_EQ(failure.GetCallCount(), 2U);
}

TEST_P(ThreadOperation, RefusesTheIdOfNoThread)
{
    const CallCounter calls(GetParam().platformCall);
    errno = 0;
    EXPECT_EQ(GetParam().function(0), static_cast<unsigned int>(ESRCH));
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(calls.GetCallCount(), 0U);
}

INSTANTIATE_TEST_SUITE_P(All, ThreadOperation,
                         ::testing::Values(Operation{"pthread_join", &JoinThread},
                                           Operation{"pthread_cancel", &CancelThread},
                                           Operation{"pthread_kill", &SignalThread}));

TEST(CancelThread, EndsAThreadThatIsBlocked)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::atomic<bool> left{false};
    std::atomic<bool> returned{false};
    LibraryThread thread([&] {
        const ScopeMark mark(left);
        char byte = 0;
        returned = read(ends[0], &byte, 1) >= 0;
    });
    EXPECT_EQ(CancelThread(thread.GetId()), 0U);
    EXPECT_EQ(thread.Join(), 0U);
    EXPECT_TRUE(left);
    EXPECT_FALSE(returned);
    close(ends[0]);
    close(ends[1]);
}

/// A thread without cancellation points, which ends by itself only when told to.
class Spinner
{
public:
    explicit Spinner(bool enableCancellation)
        : m_Thread([this, enableCancellation] {
              if (enableCancellation) {
                  EnableCancellation();
              }
              m_Spinning = true;
              while (!m_Stop) {
              }
              m_RanToItsEnd = true;
          })
    {
        while (!m_Spinning) {
            sched_yield();
        }
    }

    void Cancel() { EXPECT_EQ(CancelThread(m_Thread.GetId()), 0U); }
    void Stop() { m_Stop = true; }
    /// False when the thread was cancelled.
    bool JoinAndTell()
    {
        EXPECT_EQ(m_Thread.Join(), 0U);
        return m_RanToItsEnd;
    }

private:
    std::atomic<bool> m_Spinning{false};
    std::atomic<bool> m_Stop{false};
    std::atomic<bool> m_RanToItsEnd{false};
    LibraryThread m_Thread;
};

TEST(EnableCancellation, LetsAThreadBeCancelledAnywhere)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "its instrumentation is not ready to be cancelled anywhere";
    }
    Spinner spinner(true);
    spinner.Cancel();
    EXPECT_FALSE(spinner.JoinAndTell());
}

TEST(EnableCancellation, IsNeededForThat)
{
    Spinner spinner(false);
    spinner.Cancel();
    spinner.Stop();
    EXPECT_TRUE(spinner.JoinAndTell());
}

TEST(EnableCancellation, ConcernsTheCallingThreadOnly)
{
    LibraryThread([] {
        EnableCancellation();
        int type = -1;
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
        EXPECT_EQ(type, PTHREAD_CANCEL_ASYNCHRONOUS);
    }).Join();
    int type = -1;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    EXPECT_EQ(type, PTHREAD_CANCEL_DEFERRED);
}

TEST(EnableCancellation, KeepsQuietAboutAFailure)
{
    const FailingCall failure("pthread_setcanceltype", EINVAL);
    EXPECT_NO_THROW(EnableCancellation());
    EXPECT_TRUE(failure.WasHit());
}

TEST(SignalThread, SendsTheUserSignalToThatThreadAlone)
{
    sigset_t user;
    sigset_t before;
    sigemptyset(&user);
    sigaddset(&user, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &user, &before); // The new thread inherits it.
    siginfo_t received{};
    std::binary_semaphore sent{0};
    LibraryThread thread([&] {
        sent.acquire();
        sigwaitinfo(&user, &received);
    });
    EXPECT_EQ(SignalThread(thread.GetId()), 0U);
    // Neither this thread's nor the whole process's.
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGUSR1), 0);
    sent.release();
    EXPECT_EQ(thread.Join(), 0U);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(received.si_signo, SIGUSR1);
    EXPECT_EQ(received.si_signo, 10);
    EXPECT_EQ(received.si_pid, getpid());
}

} // namespace
