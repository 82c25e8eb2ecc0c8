// Prints the counters that a running message_server publishes.

#include "StatusPage.h"

#include <VelaHost_OS/SharedMemory.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: message_status STATUS-FILE\n");
        return 2;
    }
    VelaHost_OS::SharedMemory memory(argv[1]);
    void* map =
        memory.Open() == 0 && memory.GetSize() >= sizeof(StatusPage) ? memory.Map() : MAP_FAILED;
    if (map == MAP_FAILED) {
        std::fprintf(stderr, "message_status: no status page in %s\n", argv[1]);
        return 1;
    }
    const auto& page = *static_cast<const StatusPage*>(map);
    std::printf("server process     %d\n", page.serverPid.load());
    std::printf("queue connections  %u\n", page.queueConnections.load());
    std::printf("TCP connections    %u\n", page.tcpConnections.load());
    std::printf("messages           %u\n", page.messages.load());
    std::printf("sum                %u\n", page.sum.load());
    std::printf("heartbeats         %u\n", page.heartbeats.load());
    munmap(map, memory.GetSize());
    return 0;
}
