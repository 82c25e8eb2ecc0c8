#pragma once

#include "ChildProcess.h"

#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace velahost_test {

/// A process that owns something, tells what, and then waits for its end.
class Owner
{
public:
    /// `acquire` returns what is told, and keeps what it has acquired by leaking it.
    explicit Owner(const std::function<std::string()>& acquire) : Owner(MakePipe(), acquire) {}
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    ~Owner() { close(m_Pipe.read); }

    /// What it told.
    const std::string& GetText() const { return m_Text; }
    void Kill()
    {
        m_Process.Kill(SIGKILL);
        m_Process.Wait();
    }

private:
    struct Pipe
    {
        int read;
        int write;
    };

    static Pipe MakePipe()
    {
        int ends[2];
        if (pipe(ends) != 0) {
            throw std::runtime_error("no pipe");
        }
        return {ends[0], ends[1]};
    }

    Owner(Pipe pipe, const std::function<std::string()>& acquire)
        : m_Pipe(pipe), m_Process([pipe, &acquire] {
              const std::string text = acquire();
              if (write(pipe.write, text.data(), text.size()) == -1) {
                  return 1;
              }
              for (;;) {
                  pause();
              }
              return 0;
          })
    {
        close(pipe.write);
        char text[512];
        const ssize_t length = read(pipe.read, text, sizeof text);
        m_Text.assign(text, length > 0 ? static_cast<std::size_t>(length) : 0);
    }

    Pipe m_Pipe;
    ChildProcess m_Process;
    std::string m_Text;
};

} // namespace velahost_test
