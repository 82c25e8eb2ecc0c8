#pragma once

#include "../StatusPage.h"

#include <VelaHost_OS/SharedMemory.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

/// The server's page of counters in shared memory, there for as long as this object.
class PublishedStatus
{
public:
    explicit PublishedStatus(const std::string& path) : m_Memory(path.c_str())
    {
        m_Memory.Delete(); // what a killed server left
        if (m_Memory.Create(s_StatusPageSize) == 0) {
            m_Map = m_Memory.Map();
        }
        if (m_Map == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), path);
        }
        // The region is all zeros, which is what fresh counters are.
        Get().serverPid = getpid();
    }
    PublishedStatus(const PublishedStatus&) = delete;
    PublishedStatus& operator=(const PublishedStatus&) = delete;
    ~PublishedStatus()
    {
        munmap(m_Map, m_Memory.GetSize());
        m_Memory.Delete();
    }

    StatusPage& Get() { return *static_cast<StatusPage*>(m_Map); }

private:
    VelaHost_OS::SharedMemory m_Memory;
    void* m_Map = MAP_FAILED;
};
