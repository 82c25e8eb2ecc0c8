#include "tools/ManualPage.h"
#include "tools/ToolProcess.h"

#include <VelaHost_Utility/PropertiesEx.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace velahost_test;
using nlohmann::json;
using testing::HasSubstr;

class ConfigTool : public testing::Test
{
protected:
    ToolResult Check(const std::string& content, const std::vector<std::string>& options = {})
    {
        std::vector<std::string> arguments{TOOL};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.push_back(m_Directory.WriteFile("file", content));
        return RunTool(arguments);
    }

    std::string At(int line, const std::string& message) const
    {
        return m_Directory.File("file") + ":" + std::to_string(line) + ": " + message + "\n";
    }

private:
    TemporaryDirectory m_Directory;
};

constexpr const char* s_Flat = "#sample file\n"
                               "MaxChannels = 32\n"
                               "Mask=0x1F\n"
                               "Name = \"board one\"   # a trailing comment\n";

constexpr const char* s_Sectioned = "Version = 3\n"
                                    "<Trace>\n"
                                    "Level = 2\n"
                                    "</Trace>\n"
                                    "<Board 0 primary>\n"
                                    "Irq = 0x0A\n"
                                    "</Board>\n"
                                    "<Board 1>\n"
                                    "</Board>\n";

TEST_F(ConfigTool, PrintsEveryPropertyOfAFlatFileWithItsType)
{
    const ToolResult result = Check(s_Flat);
    EXPECT_EQ(result.output, "uint   Mask = 31\n"
                             "uint   MaxChannels = 32\n"
                             "string Name = \"board one\"\n");
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.status, 0);
}

TEST_F(ConfigTool, PrintsSectionsWithTheirArguments)
{
    const ToolResult result = Check(s_Sectioned);
    EXPECT_EQ(result.output, "uint   Version = 3\n"
                             "<Board 0 primary>\n"
                             "uint   Irq = 10\n"
                             "</Board>\n"
                             "<Board 1>\n"
                             "</Board>\n"
                             "<Trace>\n"
                             "uint   Level = 2\n"
                             "</Trace>\n");
    EXPECT_EQ(result.status, 0);
}

TEST_F(ConfigTool, PrintsTheSameAsJson)
{
    const ToolResult result = Check(s_Sectioned, {"--json"});
    const json document = json::parse(result.output);
    EXPECT_EQ(document["format"], "sectioned");
    EXPECT_EQ(document["properties"],
              json::parse(R"([{"name": "Version", "type": "uint", "value": 3}])"));
    EXPECT_EQ(document["sections"], json::parse(R"([
        {"type": "Board", "arguments": ["0", "primary"],
         "properties": [{"name": "Irq", "type": "uint", "value": 10}]},
        {"type": "Board", "arguments": ["1"], "properties": []},
        {"type": "Trace", "arguments": [],
         "properties": [{"name": "Level", "type": "uint", "value": 2}]}])"));
    EXPECT_EQ(result.status, 0);
}

TEST_F(ConfigTool, PrintsTextsAsTextsAlsoWhenTheyLookLikeNumbers)
{
    const json document = json::parse(Check("Port = \"80\"\n", {"--json"}).output);
    EXPECT_EQ(document["properties"],
              json::parse(R"([{"name": "Port", "type": "string", "value": "80"}])"));
}

TEST_F(ConfigTool, TakesAFileWithoutTagsForAFlatOne)
{
    // Too large for the flat reader, which then reads 0.
    EXPECT_EQ(Check("Mask = 0xFFFFFFFF").output, "uint   Mask = 0\n");
    EXPECT_EQ(Check("Mask = 0xFFFFFFFF", {"--sectioned"}).output, "uint   Mask = 4294967295\n");
}

TEST_F(ConfigTool, ReadsTagsAsPropertiesWhenToldThatTheFileIsFlat)
{
    EXPECT_EQ(Check("\t<A = 1\n", {"--flat"}).output, "uint   <A = 1\n");
    const ToolResult result = Check("<Board>\n", {"--flat"});
    EXPECT_EQ(result.errors, At(1, "Invalid syntax (missing = sign)"));
    EXPECT_EQ(result.status, 1);
}

TEST_F(ConfigTool, ATagBehindACommentSignOrANameIsNone)
{
    const json document = json::parse(Check("#<Board>\nA = \"<\"\n", {"--json"}).output);
    EXPECT_EQ(document["format"], "flat");
}

struct BadFile
{
    std::string content;
    int line;
    std::string message;
};

void PrintTo(const BadFile& file, std::ostream* out)
{
    *out << file.message << ", line " << file.line;
}

class ConfigToolRefusal : public ConfigTool, public testing::WithParamInterface<BadFile>
{};

TEST_P(ConfigToolRefusal, IsReportedAsCompilersDo)
{
    const ToolResult result = Check(GetParam().content);
    EXPECT_EQ(result.errors, At(GetParam().line, GetParam().message));
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.status, 1);
}

TEST_P(ConfigToolRefusal, IsReportedAsJson)
{
    const ToolResult result = Check(GetParam().content, {"--json"});
    EXPECT_EQ(json::parse(result.output)["error"],
              (json{{"line", GetParam().line}, {"message", GetParam().message}}));
    EXPECT_EQ(result.status, 1);
}

INSTANTIATE_TEST_SUITE_P(
    EachKind, ConfigToolRefusal,
    testing::Values(
        BadFile{"\n#\nMaxChannels 32\nA = 1\n", 3, "Invalid syntax (missing = sign)"},
        BadFile{"A = 1\nMaxChannels 32", 2, "Invalid syntax (missing = sign)"},
        BadFile{"Name = \"board one\n", 1, "String value missing closing quote"},
        BadFile{"Name = \"board\" one\n", 1, "Invalid characters following string value"},
        BadFile{"Path = /opt/x\n", 1, "Invalid UInt value"},
        BadFile{"A = 1\nA = \"\"\n", 2, "Property multiply defined"},
        BadFile{std::string("A = 1\0\n", 7), 1, "Invalid syntax (NUL character)"},
        BadFile{"A = \"\"\r\n", 1, "Invalid characters following string value"},
        BadFile{"</Board>\n", 1, "End section tag outside of any section"},
        BadFile{"<Board>\n</Trace>\n", 2, "End section tag does not match open section type"},
        BadFile{"<Board>\n\n<Trace>\n", 3, "Section not allowed within another section"},
        BadFile{"<Board 1\n", 1, "Invalid syntax (missing closing > sign)"},
        BadFile{"<Board>\nA = 1\n\nA = 2\n</Board>\n", 4, "Property multiply defined"},
        BadFile{"<Board>\nMaxChannels 32\n", 2, "Invalid syntax (missing '=' sign)"},
        BadFile{"A = 1\n<\nB = 2\n", 2, "Invalid syntax (nothing after <)"},
        BadFile{"A = 1\n <", 2, "Invalid syntax (nothing after <)"}));

TEST_F(ConfigTool, ReportsTheLineThatTheLibraryReports)
{
    // Longer than any piece in which a reader may take its input.
    const std::string content =
        "A = \"" + std::string(5000, 'x') + "\"\n\n" + std::string(1000, ' ') + "\nB\n";
    std::istringstream in(content);
    VelaHost_Utility::Properties store;
    EXPECT_THROW(store.Load(in), VelaHost_Utility::PropertiesException);
    EXPECT_THAT(store.GetLastError(), HasSubstr(" at line 4"));
    EXPECT_EQ(Check(content).errors, At(4, "Invalid syntax (missing = sign)"));
}

TEST_F(ConfigTool, KeepsControlCharactersFromTheTerminal)
{
    EXPECT_EQ(Check("A\x1b[2J = \"\x7f\"\n").output, "string A\\x1b[2J = \"\\x7f\"\n");
}

TEST_F(ConfigTool, PrintsValidJsonForBytesThatAreNotText)
{
    const json document = json::parse(Check("A = \"\xff\"\n", {"--json"}).output);
    EXPECT_EQ(document["properties"][0]["value"], "\xef\xbf\xbd");
}

TEST_F(ConfigTool, AcceptsAnEmptyFile)
{
    const ToolResult result = Check("");
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.status, 0);
}

TEST(ConfigToolUsage, AFileThatCannotBeReadIsNoInvalidFile)
{
    const TemporaryDirectory directory;
    const ToolResult missing = RunTool({TOOL, directory.File("missing")});
    EXPECT_EQ(missing.errors,
              "velahost-config: " + directory.File("missing") + ": No such file or directory\n");
    EXPECT_EQ(missing.status, 2);
    const ToolResult folder = RunTool({TOOL, "--json", directory.GetPath()});
    EXPECT_EQ(folder.errors, "velahost-config: " + directory.GetPath() + ": Is a directory\n");
    EXPECT_EQ(folder.output, "");
    EXPECT_EQ(folder.status, 2);
}

TEST(ConfigToolUsage, WrongArgumentsHaveTheirOwnStatus)
{
    EXPECT_EQ(RunTool({TOOL}).status, 2);
    EXPECT_EQ(RunTool({TOOL, "--flat", "--sectioned", "/dev/null"}).status, 2);
    EXPECT_EQ(RunTool({TOOL, "--unknown", "/dev/null"}).status, 2);
}

TEST(ConfigToolUsage, TheManualPageDescribesTheOptions)
{
    EXPECT_EQ(OptionsOfManualPage(MANUAL_PAGE), OptionsOfHelp(TOOL, {}));
}

} // namespace
