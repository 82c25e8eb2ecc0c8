#pragma once

#include "FileState.h"

#include "Interpose.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velahost_test {

/// A descriptor that is closed at destruction.
class Descriptor
{
public:
    Descriptor() : m_Descriptor(-1) {}
    explicit Descriptor(int descriptor) : m_Descriptor(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : m_Descriptor(std::exchange(other.m_Descriptor, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(m_Descriptor, other.m_Descriptor);
        return *this;
    }
    ~Descriptor() { Close(); }

    int Get() const { return m_Descriptor; }
    void Close();

private:
    int m_Descriptor;
};

/// A TCP connection to a port of this machine.
Descriptor ConnectTo(int port);
/// The TCP port that a socket is bound to.
int LocalPort(int descriptor);
/// A port that nobody listens on and that nobody else gets while the descriptor lives.
std::pair<Descriptor, int> UnusedPort();

/// Writes all of it, or throws.
void WriteAll(int descriptor, std::string_view bytes);
/// Reads that many bytes; fewer when the peer closes first.
std::string ReadExactly(int descriptor, std::size_t count);
/// Waits until that many bytes can be read at once, or the peer has closed; throws when neither
/// comes about.
void WaitForBytes(int descriptor, std::size_t count);
/// How many bytes can be read at once.
std::size_t BytesWaiting(int descriptor);
/// Closes by reset: the peer's next receive fails with `ECONNRESET`.
void Reset(Descriptor& descriptor);

bool IsOpen(int descriptor);

/// Notes the descriptors that are opened as sockets while it lives, and closes them at its end.
class OpenedSockets
{
public:
    OpenedSockets();

    std::size_t GetCount() const { return m_Opened.size(); }
    /// True when none has been closed.
    bool AreOpen() const;

private:
    std::vector<Descriptor> m_Opened;
    Hook<int(int, int, int)> m_Hook;
};

/// Takes all free descriptors below `limit`, until destruction.
class OccupiedDescriptors
{
public:
    explicit OccupiedDescriptors(int limit);

private:
    std::vector<Descriptor> m_Occupied;
};

/// Leaves only that many descriptors to the process, until destruction.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(std::size_t limit);
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;
    ~DescriptorLimit();

private:
    std::size_t m_Original;
};

} // namespace velahost_test
