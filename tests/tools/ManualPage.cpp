#include "ManualPage.h"

#include "ToolProcess.h"

#include <fstream>
#include <iterator>
#include <regex>

namespace velahost_test {

namespace {

void AddOptions(const std::string& text, std::set<std::string>& options)
{
    static const std::regex s_Option("--[a-z]+");
    for (std::sregex_iterator it(text.begin(), text.end(), s_Option), end; it != end; ++it) {
        options.insert(it->str());
    }
}

} // namespace

std::set<std::string> OptionsOfHelp(const std::string& tool,
                                    const std::vector<std::string>& commands)
{
    std::set<std::string> options;
    AddOptions(RunTool({tool, "--help"}).output, options);
    for (const std::string& command : commands) {
        AddOptions(RunTool({tool, command, "--help"}).output, options);
    }
    return options;
}

std::set<std::string> OptionsOfManualPage(const std::string& file)
{
    std::ifstream in(file);
    const std::string source{std::istreambuf_iterator<char>(in), {}};
    std::set<std::string> options;
    AddOptions(std::regex_replace(source, std::regex(R"(\\-)"), "-"), options);
    return options;
}

} // namespace velahost_test
