#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <initializer_list>
#include <pthread.h>
#include <sys/types.h>
#include <thread>

namespace velahost_test {

/// Returns as soon as a thread of this process sleeps inside one of the system calls with these
/// numbers, by what the system says. Throws `std::runtime_error` when it has ended instead.
void WaitUntilInCall(pid_t thread, std::initializer_list<long> calls);

/// A thread that runs into a blocking receive from a message queue. Joined at destruction: whatever
/// it waits for must have come by then.
class BlockedThread
{
public:
    explicit BlockedThread(std::function<void()> body);
    BlockedThread(const BlockedThread&) = delete;
    BlockedThread& operator=(const BlockedThread&) = delete;
    ~BlockedThread();

    /// Returns as soon as the thread sleeps inside `msgrcv`, by what the system says. Throws when
    /// it has ended instead.
    void WaitUntilReceiving() const;
    void Signal(int signalNumber) { pthread_kill(m_Thread.native_handle(), signalNumber); }
    void Cancel() { pthread_cancel(m_Thread.native_handle()); }
    void Join() { m_Thread.join(); }

private:
    std::atomic<pid_t> m_ThreadId{0};
    std::thread m_Thread;
};

} // namespace velahost_test
