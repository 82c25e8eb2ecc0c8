#include "BlockedThread.h"

#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace velahost_test {

namespace {

bool IsReceiveCall(const std::string& number)
{
#ifdef SYS_ipc
    // i386 has one call for all of System V.
    if (number == std::to_string(SYS_ipc)) {
        return true;
    }
#endif
    return number == std::to_string(SYS_msgrcv);
}

} // namespace

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
    const std::string file = "/proc/self/task/" + std::to_string(m_ThreadId) + "/syscall";
    std::string call;
    do {
        // The call that the thread sleeps in; "running" while it sleeps in none.
        if (!(std::ifstream(file) >> call)) {
            throw std::runtime_error("the thread has ended, or the system doesn't tell");
        }
    } while (!IsReceiveCall(call));
}

} // namespace velahost_test
