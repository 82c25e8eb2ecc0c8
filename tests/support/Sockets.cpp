#include "Sockets.h"

#include "interpose/Interposed.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velahost_test {

namespace {

constexpr int s_PatienceMilliseconds = 30'000;

void Require(bool succeeded, const char* what)
{
    if (!succeeded) {
        throw std::runtime_error(std::string(what) + " failed, errno " + std::to_string(errno));
    }
}

sockaddr_in Loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

Descriptor TcpSocket()
{
    Descriptor descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Require(descriptor.Get() != -1, "socket");
    return descriptor;
}

} // namespace

void Descriptor::Close()
{
    if (m_Descriptor != -1) {
        close(std::exchange(m_Descriptor, -1));
    }
}

Descriptor ConnectTo(int port)
{
    Descriptor descriptor = TcpSocket();
    const sockaddr_in address = Loopback(port);
    Require(
        connect(descriptor.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
        "connect");
    return descriptor;
}

int LocalPort(int descriptor)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    Require(getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0,
            "getsockname");
    return ntohs(address.sin_port);
}

std::pair<Descriptor, int> UnusedPort()
{
    // Bound, but not listening.
    Descriptor descriptor = TcpSocket();
    const sockaddr_in address = Loopback(0);
    Require(bind(descriptor.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
                0,
            "bind");
    const int port = LocalPort(descriptor.Get());
    return {std::move(descriptor), port};
}

void WriteAll(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(descriptor, bytes.data(), bytes.size());
        if (count == -1 && errno == EINTR) {
            continue;
        }
        Require(count > 0, "write");
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

std::string ReadExactly(int descriptor, std::size_t count)
{
    std::string bytes(count, '\0');
    std::size_t filled = 0;
    while (filled < count) {
        const ssize_t part = read(descriptor, bytes.data() + filled, count - filled);
        if (part == -1 && errno == EINTR) {
            continue;
        }
        Require(part >= 0, "read");
        if (part == 0) {
            break;
        }
        filled += static_cast<std::size_t>(part);
    }
    bytes.resize(filled);
    return bytes;
}

void WaitForBytes(int descriptor, std::size_t count)
{
    // SO_RCVLOWAT makes the descriptor readable only when that much has come, or the end.
    const int bytes = static_cast<int>(count);
    Require(setsockopt(descriptor, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes) == 0,
            "setsockopt");
    pollfd waiting{descriptor, POLLIN, 0};
    Require(poll(&waiting, 1, s_PatienceMilliseconds) == 1, "waiting for bytes");
    const int one = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_RCVLOWAT, &one, sizeof one);
}

std::size_t BytesWaiting(int descriptor)
{
    int count = 0;
    Require(ioctl(descriptor, FIONREAD, &count) == 0, "ioctl");
    return static_cast<std::size_t>(count);
}

void Reset(Descriptor& descriptor)
{
    const linger atOnce{1, 0};
    Require(setsockopt(descriptor.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce) == 0,
            "setsockopt");
    descriptor.Close();
}

bool IsOpen(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

OpenedSockets::OpenedSockets()
    : m_Hook(interposed::socket, [this](int family, int type, int protocol) {
          m_Opened.emplace_back(socket(family, type, protocol));
          return m_Opened.back().Get();
      })
{}

bool OpenedSockets::AreOpen() const
{
    return std::all_of(m_Opened.begin(), m_Opened.end(),
                       [](const Descriptor& descriptor) { return IsOpen(descriptor.Get()); });
}

OccupiedDescriptors::OccupiedDescriptors(int limit)
{
    do {
        m_Occupied.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        Require(m_Occupied.back().Get() != -1, "open");
    } while (m_Occupied.back().Get() < limit);
    m_Occupied.pop_back();
}

DescriptorLimit::DescriptorLimit(std::size_t limit)
{
    rlimit current{};
    Require(getrlimit(RLIMIT_NOFILE, &current) == 0, "getrlimit");
    m_Original = current.rlim_cur;
    current.rlim_cur = limit;
    Require(setrlimit(RLIMIT_NOFILE, &current) == 0, "setrlimit");
}

DescriptorLimit::~DescriptorLimit()
{
    rlimit current{};
    getrlimit(RLIMIT_NOFILE, &current);
    current.rlim_cur = m_Original;
    setrlimit(RLIMIT_NOFILE, &current);
}

} // namespace velahost_test
