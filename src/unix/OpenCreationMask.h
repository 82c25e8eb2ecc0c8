#pragma once

#include <VelaHost_OS/SystemInfo.h>

#include <atomic>
#include <sys/stat.h>

namespace VelaHost_OS {

/// Lets files have exactly the permissions that they are created with. The mask is the whole
/// process's: of two threads that open it at once, one would take the other's 0 for what it has to
/// restore. So each waits here until it is alone.
class OpenCreationMask
{
public:
    OpenCreationMask() : m_Former(OpenAlone()) {}
    OpenCreationMask(const OpenCreationMask&) = delete;
    OpenCreationMask& operator=(const OpenCreationMask&) = delete;
    ~OpenCreationMask()
    {
        umask(m_Former);
        s_IsOpen.clear(std::memory_order_release);
    }

    /// The mask stays 0 behind this object.
    void Leave() { m_Former = 0; }

private:
    static mode_t OpenAlone()
    {
        constexpr unsigned int pollMilliseconds = 1;
        while (s_IsOpen.test_and_set(std::memory_order_acquire)) {
            SleepMilliseconds(pollMilliseconds);
        }
        return umask(0);
    }

    inline static std::atomic_flag s_IsOpen;
    mode_t m_Former;
};

} // namespace VelaHost_OS
