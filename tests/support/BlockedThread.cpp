#include "BlockedThread.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace velahost_test {

namespace {

constexpr std::initializer_list<long> s_ReceiveCalls{
    SYS_msgrcv,
#ifdef SYS_ipc
    SYS_ipc, // i386 has one call for all of System V
#endif
};

} // namespace

void WaitUntilInCall(pid_t thread, std::initializer_list<long> calls)
{
    const std::string file = "/proc/self/task/" + std::to_string(thread) + "/syscall";
    std::string current;
    do {
        // The call that the thread sleeps in; "running" while it sleeps in none.
        if (!(std::ifstream(file) >> current)) {
            throw std::runtime_error("the thread has ended, or the system doesn't tell");
        }
    } while (std::none_of(calls.begin(), calls.end(),
                          [&](long call) { return current == std::to_string(call); }));
}

BlockedThread::BlockedThread(std::function<void()> body)
    : m_Thread([this, run = std::move(body)] {
          m_ThreadId = static_cast<pid_t>(syscall(SYS_gettid));
          run();
      })
{}

BlockedThread::~BlockedThread()
{
    if (m_Thread.joinable()) {
        m_Thread.join();
    }
}

void BlockedThread::WaitUntilReceiving() const
{
    while (m_ThreadId == 0) {
        std::this_thread::yield();
    }
    WaitUntilInCall(m_ThreadId, s_ReceiveCalls);
}

} // namespace velahost_test
