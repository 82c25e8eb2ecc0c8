#pragma once

#include <chrono>
#include <optional>

namespace velahost_test {

/// Single bytes between a test and the processes that it forks. Every process has both ends.
class Pipe
{
public:
    Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe();

    void Send(char byte = '.') const;
    /// The next byte; nothing when none came in that time.
    std::optional<char> Receive(std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

private:
    int m_Ends[2];
};

} // namespace velahost_test
