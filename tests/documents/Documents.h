#pragma once

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace velahost_test {

/// What is in a file of the project, named from its root.
inline std::string ReadProjectFile(const std::string& name)
{
    std::ifstream file(std::string(PROJECT_DIRECTORY) + "/" + name);
    if (!file) {
        throw std::runtime_error("can't read " + name);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace velahost_test
