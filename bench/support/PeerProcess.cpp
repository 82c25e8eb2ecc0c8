#include "support/PeerProcess.h"

#include <csignal>
#include <cstdlib>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

PeerProcess::PeerProcess(Processor processor,
                         const std::function<void(const std::function<void()>&)>& body)
{
    int ready[2];
    if (pipe(ready) != 0) {
        abort();
    }
    m_Process = fork();
    if (m_Process < 0) {
        abort();
    }
    if (m_Process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ready[0]);
        RunOn(processor);
        body([&] { close(ready[1]); });
        _exit(0);
    }
    close(ready[1]);
    char none;
    while (read(ready[0], &none, 1) > 0) {
    }
    close(ready[0]);
}

PeerProcess::~PeerProcess()
{
    kill(m_Process, SIGKILL);
    waitpid(m_Process, nullptr, 0);
}

} // namespace bench
