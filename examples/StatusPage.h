#pragma once

#include <atomic>
#include <cstdint>

/// What message_server publishes in shared memory and message_status prints. Any process may read
/// it at any time: each number is whole, and together they are consistent while the server rests.
struct StatusPage
{
    std::atomic<std::int32_t> serverPid;
    std::atomic<std::uint32_t> messages;
    std::atomic<std::uint32_t> queueConnections;
    std::atomic<std::uint32_t> tcpConnections;
    std::atomic<std::uint32_t> sum;
    std::atomic<std::uint32_t> heartbeats;
};

inline constexpr unsigned int s_StatusPageSize = 4096;
static_assert(sizeof(StatusPage) <= s_StatusPageSize);
