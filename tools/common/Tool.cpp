#include "Tool.h"

#include "QuietLibrary.h"

#include <VelaHost_OS/LibraryVersion.h>
#include <VelaHost_Utility/Exception.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

namespace velahost_tools {

namespace {

constexpr int s_OneLine = -1;
constexpr int s_Indent = 2;

void Print(const Json& document, int indent)
{
    const std::string text =
        document.dump(indent, ' ', false, nlohmann::detail::error_handler_t::replace);
    std::printf("%s\n", text.c_str());
}

ExitStatus Report(const CLI::App& app, const char* text, ExitStatus status)
{
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", app.get_name().c_str(), text);
    return status;
}

ExitStatus RunAction(CLI::App& app, const std::function<ExitStatus()>& action,
                     ExitStatus otherStatus)
{
    try {
        return action();
    } catch (const ToolError& e) {
        return Report(app, e.what(), e.GetStatus());
    } catch (const std::exception& e) {
        return Report(app, e.what(), otherStatus);
    } catch (const VelaHost_Utility::Exception& e) {
        return Report(app, e.GetText().c_str(), otherStatus);
    }
}

} // namespace

int RunTool(CLI::App& app, int argc, char** argv, const std::function<ExitStatus()>& action,
            ExitStatus otherStatus)
{
    app.set_version_flag("--version", LIBVELAHOST_FILE_VERSION_STRING);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? Success : CannotAnswer;
    }
    SilenceLibrary(); // not before: help goes to std::cout
    const ExitStatus status = RunAction(app, action, otherStatus);
    // A full disk or a closed pipe would otherwise look like success.
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        return Report(app, "can't write to standard output", CannotAnswer);
    }
    return status;
}

std::string ReadFile(const std::string& path)
{
    const auto fail = [&path] {
        const std::string reason = std::generic_category().message(errno);
        throw ToolError(CannotAnswer, path + ": " + reason);
    };
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                               std::fclose);
    if (!file) {
        fail();
    }
    std::string content;
    char piece[4096];
    while (const std::size_t count = std::fread(piece, 1, sizeof piece, file.get())) {
        content.append(piece, count);
    }
    if (std::ferror(file.get()) != 0) {
        fail();
    }
    return content;
}

void PrintJson(const Json& document)
{
    Print(document, s_Indent);
}

void PrintJsonLine(const Json& document)
{
    Print(document, s_OneLine);
}

} // namespace velahost_tools
