// What the system and plain containers take for the same.
#include "Stages.h"

#include <map>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <thread>

namespace {

struct Connection
{
    int socket;
    int fill;
    unsigned char buffer[footprint::s_FrameBuffer];
};

void HoldIdle()
{
    std::thread([] { pause(); }).detach();
    footprint::Reached();
}

void HoldTimers(int count)
{
    std::multimap<std::int64_t, void*> timers;
    footprint::Reached();
    for (int i = 0; i < count; ++i) {
        timers.emplace(footprint::FarMilliseconds(i), nullptr);
    }
    footprint::Reached();
}

void HoldConnections(int count)
{
    const int server = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const int events = epoll_create1(0);
    if (bind(server, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(server, count) != 0 ||
        getsockname(server, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        std::abort();
    }
    footprint::Reached(ntohs(address.sin_port));
    for (int served = 0; served < count; ++served) {
        auto* const connection = new Connection{};
        connection->socket = accept(server, nullptr, nullptr);
        epoll_event readable{};
        readable.events = EPOLLIN;
        readable.data.ptr = connection;
        epoll_ctl(events, EPOLL_CTL_ADD, connection->socket, &readable);
        epoll_wait(events, &readable, 1, -1);
        auto& ready = *static_cast<Connection*>(readable.data.ptr);
        ready.fill =
            static_cast<int>(recv(ready.socket, ready.buffer, footprint::s_FrameBuffer, 0));
    }
    footprint::Reached();
}

} // namespace

int main(int, char** argv)
{
    footprint::Hold(argv, {HoldIdle, HoldTimers, HoldConnections});
}
