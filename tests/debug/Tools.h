#pragma once

#include <optional>
#include <string>
#include <vector>

/// How the tests run debuggers and network analysers, which not every machine has.
namespace velahost_test {

/// The path of a program on `PATH`.
std::optional<std::string> FindProgram(const std::string& name);

/// Runs a program, `arguments[0]` its path, to its end and returns what it wrote to standard output
/// and error. `status`, unless null, gets the exit status, or minus the number of a signal.
std::string RunProgram(const std::vector<std::string>& arguments, int* status = nullptr);

/// The file's content; empty when there is none.
std::string ReadWhole(const std::string& path);

std::vector<std::string> SplitLines(const std::string& text);

} // namespace velahost_test
