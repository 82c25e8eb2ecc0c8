#include "Pipe.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

namespace velahost_test {

Pipe::Pipe()
{
    if (pipe2(m_Ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
}

Pipe::~Pipe()
{
    close(m_Ends[0]);
    close(m_Ends[1]);
}

void Pipe::Send(char byte) const
{
    if (write(m_Ends[1], &byte, 1) != 1) {
        throw std::runtime_error("can't write to a pipe");
    }
}

std::optional<char> Pipe::Receive(std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int ready = 0;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd end{m_Ends[0], POLLIN, 0};
        ready = poll(&end, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
    } while (ready == -1 && errno == EINTR);
    char byte = 0;
    if (ready != 1 || read(m_Ends[0], &byte, 1) != 1) {
        return std::nullopt;
    }
    return byte;
}

} // namespace velahost_test
