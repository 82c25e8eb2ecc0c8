#include "Tools.h"

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace velahost_test {

std::optional<std::string> FindProgram(const std::string& name)
{
    const char* const path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "");
    for (std::string directory; std::getline(directories, directory, ':');) {
        if (std::string file = directory + "/" + name; access(file.c_str(), X_OK) == 0) {
            return file;
        }
    }
    return std::nullopt;
}

std::string RunProgram(const std::vector<std::string>& arguments, int* status)
{
    const TemporaryDirectory directory;
    const std::string output = directory.File("output");
    const int result = ChildProcess(arguments, output).WaitForExitStatus();
    if (status != nullptr) {
        *status = result;
    }
    return ReadWhole(output);
}

std::string ReadWhole(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

} // namespace velahost_test
