#pragma once

#include "support/Processors.h"

#include <functional>
#include <sys/types.h>

namespace bench {

/// The other side of a measurement: a child process that is killed and reaped with this object, and
/// dies with the program.
class PeerProcess
{
public:
    /// Runs `body` in the child, on that processor. The constructor returns once the body has
    /// called the function that it is given: when it is ready.
    PeerProcess(Processor processor, const std::function<void(const std::function<void()>&)>& body);
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;
    ~PeerProcess();

    pid_t GetId() const { return m_Process; }

private:
    pid_t m_Process;
};

} // namespace bench
