#pragma once

#include "support/ChildProcess.h"
#include "support/Sockets.h"
#include "support/TemporaryDirectory.h"

#include <string>
#include <utility>
#include <vector>

namespace velahost_test {

/// A tool that runs with an input of its own; it is killed at destruction if it still runs.
class ToolProcess
{
public:
    /// `arguments[0]` is the program's path.
    explicit ToolProcess(const std::vector<std::string>& arguments, const std::string& input = "");

    pid_t GetPid() const { return m_Process.GetPid(); }
    void Kill(int signalNumber) { m_Process.Kill(signalNumber); }
    /// The next line that it writes to standard error; empty when it ends instead.
    std::string ReadErrorLine();
    /// Waits for its end; the exit status, or minus the number of the signal that ended it.
    int WaitForExitStatus();
    /// What it has written to standard output.
    std::string GetOutput() const;
    /// What it has written to standard error and `ReadErrorLine` has not taken; waits for its end.
    std::string ReadErrors();

private:
    ToolProcess(const std::vector<std::string>& arguments, const std::string& input,
                std::pair<Descriptor, Descriptor> errorPipe);

    TemporaryDirectory m_Directory;
    Descriptor m_Errors;
    ChildProcess m_Process;
};

struct ToolResult
{
    int status;
    std::string output;
    std::string errors;
};

/// Runs a tool to its end.
ToolResult RunTool(const std::vector<std::string>& arguments, const std::string& input = "");

} // namespace velahost_test
