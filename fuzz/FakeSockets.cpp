#include "FakeSockets.h"

#include "Fuzz.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

namespace velahost_fuzz {

namespace interposed = velahost_test::interposed;

FakeSockets::FakeSockets()
    : m_Socket(interposed::socket, [](int, int, int) -> std::optional<int> { return s_Listener; }),
      m_SetOption(interposed::setsockopt,
                  [](int, int, int, const void*, socklen_t) -> std::optional<int> { return 0; }),
      m_Bind(interposed::bind,
             [](int, const sockaddr*, socklen_t) -> std::optional<int> { return 0; }),
      m_Listen(interposed::listen, [](int, int) -> std::optional<int> { return 0; }),
      m_Accept(interposed::accept,
               [this](int listener, sockaddr*, socklen_t*) -> std::optional<int> {
                   Require(listener == s_Listener && m_IsWaiting, "accept serves who waits");
                   m_IsWaiting = false;
                   m_IsConnected = true;
                   return s_Client;
               }),
      m_Select(interposed::select,
               [this](int count, fd_set* readable, fd_set*, fd_set*,
                      timeval*) -> std::optional<int> { return Select(count, readable); }),
      m_Receive(interposed::recv,
                [this](int client, void* buffer, std::size_t size, int) -> std::optional<ssize_t> {
                    Require(client == s_Client && m_IsConnected, "recv asks who is connected");
                    return Receive(buffer, size);
                }),
      m_Close(interposed::close, [this](int descriptor) -> std::optional<int> {
          if (descriptor != s_Client) {
              return std::nullopt;
          }
          Require(std::exchange(m_IsConnected, false), "a connection is closed once");
          return 0;
      })
{}

void FakeSockets::Connect()
{
    Require(!m_IsConnected, "one client at a time");
    m_IsWaiting = true;
    m_HasEnded = false;
    m_Pieces.clear();
}

void FakeSockets::Send(std::string piece)
{
    if (!piece.empty()) {
        m_Pieces.push_back(std::move(piece));
    }
}

void FakeSockets::End(int error)
{
    m_HasEnded = true;
    m_EndError = error;
}

int FakeSockets::Select(int count, fd_set* readable)
{
    Require(count > s_Listener && FD_ISSET(s_Listener, readable), "select watches the listener");
    Require(!m_IsConnected || (count > s_Client && FD_ISSET(s_Client, readable)),
            "select watches the client");
    const bool hasNews = m_IsConnected && (!m_Pieces.empty() || m_HasEnded);
    Require(m_IsWaiting || hasNews, "select does not wait in vain");
    FD_ZERO(readable);
    if (m_IsWaiting) {
        FD_SET(s_Listener, readable);
    }
    if (hasNews) {
        FD_SET(s_Client, readable);
    }
    return static_cast<int>(m_IsWaiting) + static_cast<int>(hasNews);
}

ssize_t FakeSockets::Receive(void* buffer, std::size_t size)
{
    if (m_Pieces.empty()) {
        Require(m_HasEnded, "recv does not wait in vain");
        errno = m_EndError;
        return m_EndError == 0 ? 0 : -1;
    }
    std::string& piece = m_Pieces.front();
    const std::size_t count = std::min(size, piece.size());
    std::memcpy(buffer, piece.data(), count);
    piece.erase(0, count);
    if (piece.empty()) {
        m_Pieces.pop_front();
    }
    return static_cast<ssize_t>(count);
}

} // namespace velahost_fuzz
