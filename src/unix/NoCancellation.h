#pragma once

#include <pthread.h>
#include <unistd.h>

namespace VelaHost_OS {

/// While it lives, a request to cancel the thread waits.
class NoCancellation
{
public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_Former); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;
    ~NoCancellation() { pthread_setcancelstate(m_Former, nullptr); }

private:
    int m_Former = PTHREAD_CANCEL_ENABLE;
};

/// For destructors: `close` is a cancellation point, and a thread that is cancelled in what may not
/// throw ends the process.
inline void CloseUncancelled(int fd)
{
    const NoCancellation shield;
    close(fd);
}

} // namespace VelaHost_OS
