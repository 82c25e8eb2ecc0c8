#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <functional>
#include <stdexcept>
#include <string>

/// What the tools have in common: their exit statuses, how they report failures, and JSON.
namespace velahost_tools {

/// In the order in which they are written.
using Json = nlohmann::ordered_json;

enum ExitStatus : int {
    Success = 0,
    Refused = 1,     ///< What was asked for was looked at, and the answer is no.
    CannotAnswer = 2 ///< Wrong usage, or something could not be read.
};

/// A failure with the exit status that it means.
class ToolError : public std::runtime_error
{
public:
    ToolError(ExitStatus status, const std::string& text)
        : std::runtime_error(text), m_Status(status)
    {}

    ExitStatus GetStatus() const { return m_Status; }

private:
    ExitStatus m_Status;
};

/// Parses the arguments and runs `action`, whose result is the exit status. Failures go to
/// standard error: a `ToolError` has its own status, other exceptions mean `otherStatus`.
int RunTool(CLI::App& app, int argc, char** argv, const std::function<ExitStatus()>& action,
            ExitStatus otherStatus);

/// The whole content; a `ToolError` of status `CannotAnswer` when it can't be read.
std::string ReadFile(const std::string& path);

/// To standard output. Bytes that are not UTF-8 become U+FFFD.
void PrintJson(const Json& document);
/// The same on one line.
void PrintJsonLine(const Json& document);

} // namespace velahost_tools
