#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace velahost_test {

/// What `nm` tells of the symbols that the library defines for others, a line each; `options` are
/// further ones of its own.
inline std::string ReadSymbols(const std::string& options)
{
    const std::string command =
        VELAHOST_TEST_NM " -D --defined-only " + options + " " VELAHOST_TEST_LIBRARY;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(popen(command.c_str(), "r"),
                                                                 pclose);
    std::string text;
    char part[4096];
    std::size_t length = 0;
    while ((length = std::fread(part, 1, sizeof part, output.get())) > 0) {
        text.append(part, length);
    }
    return text;
}

} // namespace velahost_test
