#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace velahost_test {

/// A child process that is always reaped: destruction kills it if it still runs. It dies with the
/// thread that made it.
class ChildProcess
{
public:
    /// Runs `body` in a forked child that ends with the returned value as its exit status, without
    /// running exit handlers. An exception that leaves `body` ends the child as usual, by abort.
    explicit ChildProcess(const std::function<int()>& body);
    /// Runs a program: `arguments[0]` is its path. Standard output and error go to `outputFile`
    /// unless that is empty.
    explicit ChildProcess(const std::vector<std::string>& arguments,
                          const std::string& outputFile = "");
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    pid_t GetPid() const { return m_Pid; }
    void Kill(int signalNumber);
    /// Waits for the end; the wait status, for WIFEXITED and its kin. May be called again.
    int Wait();
    /// Waits for the end; the exit status, or minus the number of the signal that ended it.
    int WaitForExitStatus();

private:
    pid_t m_Pid;
    int m_Status = 0;
    bool m_Reaped = false;
};

} // namespace velahost_test
