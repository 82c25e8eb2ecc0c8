#include "ToolProcess.h"

#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <unistd.h>

namespace velahost_test {

namespace {

std::pair<Descriptor, Descriptor> MakePipe()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

int Execute(const std::vector<std::string>& arguments)
{
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    execv(pointers[0], pointers.data());
    return 127;
}

} // namespace

ToolProcess::ToolProcess(const std::vector<std::string>& arguments, const std::string& input)
    : ToolProcess(arguments, input, MakePipe())
{}

ToolProcess::ToolProcess(const std::vector<std::string>& arguments, const std::string& input,
                         std::pair<Descriptor, Descriptor> errorPipe)
    : m_Errors(std::move(errorPipe.first)), m_Process([&] {
          const std::string inputFile = m_Directory.WriteFile("input", input);
          dup2(open(inputFile.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
          dup2(open(m_Directory.File("output").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600),
               STDOUT_FILENO);
          dup2(errorPipe.second.Get(), STDERR_FILENO);
          return Execute(arguments);
      })
{}

std::string ToolProcess::ReadErrorLine()
{
    std::string line;
    for (char character = 0; read(m_Errors.Get(), &character, 1) == 1 && character != '\n';) {
        line += character;
    }
    return line;
}

int ToolProcess::WaitForExitStatus()
{
    return m_Process.WaitForExitStatus();
}

std::string ToolProcess::GetOutput() const
{
    std::ifstream file(m_Directory.File("output"));
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string ToolProcess::ReadErrors()
{
    std::string errors;
    char piece[512];
    for (ssize_t count = 0; (count = read(m_Errors.Get(), piece, sizeof piece)) > 0;) {
        errors.append(piece, static_cast<std::size_t>(count));
    }
    return errors;
}

ToolResult RunTool(const std::vector<std::string>& arguments, const std::string& input)
{
    ToolProcess tool(arguments, input);
    const std::string errors = tool.ReadErrors();
    const int status = tool.WaitForExitStatus();
    return {status, tool.GetOutput(), errors};
}

} // namespace velahost_test
