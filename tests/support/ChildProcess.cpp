#include "ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace VelaHost_Utility {

/// The library has it in coverage builds.
[[gnu::weak]] void WriteCoverageCounters();

} // namespace VelaHost_Utility

namespace velahost_test {

namespace {

/// As `fork`; the child dies with its parent.
pid_t ForkTied()
{
    std::fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == -1) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL, 0UL, 0UL, 0UL);
        if (getppid() != parent) {
            _exit(1);
        }
    }
    return child;
}

} // namespace

ChildProcess::ChildProcess(const std::function<int()>& body) : m_Pid(ForkTied())
{
    if (m_Pid == 0) {
        // Unwinding would destroy, in the child, what belongs to the parent.
        const int status = [&]() noexcept { return body(); }();
        std::fflush(nullptr);
        if (&VelaHost_Utility::WriteCoverageCounters != nullptr) {
            VelaHost_Utility::WriteCoverageCounters();
        }
        _exit(status);
    }
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::string& outputFile)
    : m_Pid(ForkTied())
{
    if (m_Pid == 0) {
        if (!outputFile.empty()) {
            const int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(output, STDOUT_FILENO);
            dup2(output, STDERR_FILENO);
        }
        std::vector<char*> pointers;
        for (const std::string& argument : arguments) {
            pointers.push_back(const_cast<char*>(argument.c_str()));
        }
        pointers.push_back(nullptr);
        execv(pointers[0], pointers.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess()
{
    if (!m_Reaped) {
        kill(m_Pid, SIGKILL);
        Wait();
    }
}

void ChildProcess::Kill(int signalNumber)
{
    if (!m_Reaped) {
        kill(m_Pid, signalNumber);
    }
}

int ChildProcess::Wait()
{
    while (!m_Reaped) {
        if (waitpid(m_Pid, &m_Status, 0) == m_Pid) {
            m_Reaped = true;
        } else if (errno != EINTR) {
            throw std::runtime_error("waitpid failed");
        }
    }
    return m_Status;
}

int ChildProcess::WaitForExitStatus()
{
    const int status = Wait();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace velahost_test
