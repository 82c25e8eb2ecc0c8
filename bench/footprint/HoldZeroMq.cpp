#include "Stages.h"

#include <zmq.h>

#include <cstring>

namespace {

/// Returns the port of a socket that clients push to.
int Listen(void* socket)
{
    char endpoint[64];
    std::size_t size = sizeof endpoint;
    if (zmq_bind(socket, "tcp://127.0.0.1:*") != 0 ||
        zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &size) != 0) {
        std::abort();
    }
    return std::atoi(std::strrchr(endpoint, ':') + 1);
}

void* MakeSocket()
{
    return zmq_socket(zmq_ctx_new(), ZMQ_PULL);
}

void HoldIdle()
{
    void* const socket = MakeSocket();
    Listen(socket);
    footprint::Reached();
}

void HoldConnections(int count)
{
    void* const socket = MakeSocket();
    footprint::Reached(Listen(socket));
    unsigned char buffer[footprint::s_FrameBuffer];
    for (int i = 0; i < count; ++i) {
        zmq_recv(socket, buffer, sizeof buffer, 0);
    }
    footprint::Reached();
}

} // namespace

int main(int, char** argv)
{
    footprint::Hold(argv, {HoldIdle, nullptr, HoldConnections});
}
