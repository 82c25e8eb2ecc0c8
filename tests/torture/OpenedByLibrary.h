#pragma once

#include "support/Interpose.h"
#include "support/Sockets.h"
#include "support/interpose/Interposed.h"

#include <algorithm>
#include <array>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace velahost_test {

/// Closes every socket that the library opens while it lives, at its end, and tells how many there
/// were and whether they stayed open. Doesn't allocate.
class OpenedByLibrary
{
public:
    OpenedByLibrary() = default;
    OpenedByLibrary(const OpenedByLibrary&) = delete;
    OpenedByLibrary& operator=(const OpenedByLibrary&) = delete;
    ~OpenedByLibrary()
    {
        for (std::size_t i = 0; i < m_Count; ++i) {
            if (IsOpen(m_Opened[i])) {
                close(m_Opened[i]);
            }
        }
    }

    std::string GetState() const
    {
        const bool open = std::all_of(m_Opened.begin(), m_Opened.begin() + m_Count, IsOpen);
        return "sockets " + std::to_string(m_Count) + (open ? ", open" : ", closed");
    }

private:
    std::array<int, 8> m_Opened{};
    std::size_t m_Count = 0;
    Hook<int(int, int, int)> m_Hook{interposed::socket, [this](int family, int type, int protocol) {
                                        const int fd = socket(family, type, protocol);
                                        // The tests' own are opened with SOCK_CLOEXEC.
                                        if (type == SOCK_STREAM && fd != -1) {
                                            m_Opened[m_Count++] = fd;
                                        }
                                        return fd;
                                    }};
};

} // namespace velahost_test
