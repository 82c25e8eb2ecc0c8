#include <VelaHost_Ipc/Socket.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <limits>
#include <unistd.h>

namespace VelaHost_Ipc {

namespace {

constexpr int s_Backlog = 5;
constexpr int s_MaxText = 500;
constexpr socklen_t s_InetLength = sizeof(sockaddr_in);
constexpr socklen_t s_LocalLength = sizeof(sockaddr_un);

bool Refuse(int error)
{
    errno = error;
    return false;
}

/// Tells of a failed receive. The bytes go to the stream's buffer in one piece, past the stream
/// itself: no format flag, width or locale of the application's touches them, lines of several
/// threads stay whole, and what the buffer throws stays here.
void ReportReceiveError()
{
    const int error = errno;
    char line[64];
    const int length =
        std::snprintf(line, sizeof line, "status == -1   errno == %d  in Socket::recv\n", error);
    std::ostream(std::cout.rdbuf()).write(line, length).flush();
    errno = error;
}

} // namespace

Socket::Socket() : domain(AF_INET), sock(-1)
{
    std::memset(&address, 0, sizeof address);
}

Socket::~Socket() = default;

bool Socket::create(int family)
{
    domain = family;
    sock = ::socket(domain, SOCK_STREAM, 0);
    if (sock == -1) {
        return false;
    }
    const int on = 1;
    return ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

bool Socket::FillAddress(int port)
{
    if (port < 0 || port > std::numeric_limits<std::uint16_t>::max()) {
        return Refuse(EINVAL);
    }
    address.inet.sin_family = AF_INET;
    address.inet.sin_port = htons(static_cast<std::uint16_t>(port));
    return true;
}

bool Socket::FillAddress(const std::string& path)
{
    const std::size_t sizeWithNul = path.size() + 1;
    if (sizeWithNul > sizeof address.local.sun_path) {
        return Refuse(ENAMETOOLONG);
    }
    address.local.sun_family = AF_UNIX;
    std::memcpy(address.local.sun_path, path.c_str(), sizeWithNul);
    return true;
}

bool Socket::bind(int port)
{
    if (!IsValid(AF_INET) || !FillAddress(port)) {
        return false;
    }
    address.inet.sin_addr.s_addr = INADDR_ANY;
    return ::bind(sock, &address.any, s_InetLength) != -1;
}

bool Socket::bind(const std::string& path)
{
    return IsValid(AF_UNIX) && FillAddress(path) && ::bind(sock, &address.any, s_LocalLength) != -1;
}

bool Socket::listen() const
{
    return sock != -1 && ::listen(sock, s_Backlog) != -1;
}

bool Socket::accept(Socket& peer) const
{
    socklen_t length = domain == AF_UNIX ? s_LocalLength : s_InetLength;
    peer.sock = ::accept(sock, &address.any, &length);
    return peer.sock > 0;
}

bool Socket::connect(const std::string& path)
{
    return IsValid(AF_UNIX) && FillAddress(path) &&
           ::connect(sock, &address.any, s_LocalLength) == 0;
}

bool Socket::connect(const std::string& host, int port)
{
    if (!IsValid(AF_INET) || !FillAddress(port)) {
        return false;
    }
    // The error, not the result: text that is no address leaves the address as it was, and callers
    // rely on reaching 0.0.0.0 that way.
    ::inet_pton(AF_INET, host.c_str(), &address.inet.sin_addr);
    if (errno == EAFNOSUPPORT) {
        return false;
    }
    return ::connect(sock, &address.any, s_InetLength) == 0;
}

bool Socket::send(unsigned char* data, int length) const
{
    if (length < 0) {
        return Refuse(EINVAL);
    }
    return ::send(sock, data, static_cast<std::size_t>(length), MSG_NOSIGNAL) != -1;
}

bool Socket::send(const std::string& s) const
{
    return ::send(sock, s.data(), s.size(), MSG_NOSIGNAL) != -1;
}

int Socket::recv(const unsigned char* buffer, int length) const
{
    ssize_t count = -1;
    if (length < 0) {
        errno = EINVAL;
    } else {
        count =
            ::recv(sock, const_cast<unsigned char*>(buffer), static_cast<std::size_t>(length), 0);
    }
    if (count == -1) {
        ReportReceiveError();
        return 0;
    }
    return static_cast<int>(count);
}

int Socket::recv(std::string& s) const
{
    s.clear();
    // Before anything is taken from the socket: it would be lost.
    try {
        s.reserve(s_MaxText);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        ReportReceiveError();
        return 0;
    }
    unsigned char text[s_MaxText + 1] = {};
    const int count = recv(text, s_MaxText);
    if (count > 0) {
        s = reinterpret_cast<const char*>(text);
    }
    return count;
}

void Socket::set_non_blocking(bool on)
{
    const int flags = ::fcntl(sock, F_GETFL);
    if (flags < 0) {
        return;
    }
    ::fcntl(sock, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

void Socket::close()
{
    if (sock != -1) {
        ::close(sock);
        sock = -1;
    }
}

} // namespace VelaHost_Ipc
