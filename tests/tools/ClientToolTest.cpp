#include "support/ChildProcess.h"
#include "support/RawQueue.h"
#include "support/TemporaryDirectory.h"
#include "tools/EchoServer.h"
#include "tools/ManualPage.h"
#include "tools/ToolProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace velahost_test;
using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;

/// Where a server is, as the tool is told.
using ServerOptions = std::vector<std::string>;

std::vector<std::string> Arguments(const std::vector<std::string>& command,
                                   const ServerOptions& server)
{
    std::vector<std::string> arguments{TOOL};
    arguments.insert(arguments.end(), command.begin(), command.end());
    arguments.insert(arguments.end(), server.begin(), server.end());
    return arguments;
}

/// The id that the next client of the server is given: it tells which are in use.
int NextConnection(const ServerOptions& server)
{
    const ToolResult result = RunTool(Arguments({"connect", "--json"}, server));
    return json::parse(result.output)["connection"].get<int>();
}

class ClientToolOnQueue : public testing::Test
{
protected:
    ToolResult Client(const std::vector<std::string>& command)
    {
        return RunTool(Arguments(command, m_Options));
    }

    QueueEchoServer m_Server;
    const ServerOptions m_Options{"--queue", m_Server.GetAddress()};
};

class ClientToolOverTcp : public testing::Test
{
protected:
    ToolResult Client(const std::vector<std::string>& command)
    {
        return RunTool(Arguments(command, m_Options));
    }

    TcpEchoServer m_Server;
    const ServerOptions m_Options{"--tcp", m_Server.GetAddress()};
};

TEST_F(ClientToolOnQueue, ConnectsAndTellsTheConnection)
{
    const ToolResult result = Client({"connect"});
    EXPECT_THAT(result.output, EndsWith(" had connection 1\n"));
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.status, 0);
}

TEST_F(ClientToolOverTcp, Connects)
{
    EXPECT_EQ(Client({"connect"}).output, "connected\n");
    EXPECT_TRUE(json::parse(Client({"connect", "--json"}).output)["connection"].is_null());
}

TEST_F(ClientToolOnQueue, ReleasesItsConnection)
{
    EXPECT_EQ(Client({"connect"}).status, 0);
    EXPECT_EQ(NextConnection(m_Options), 1);
}

TEST_F(ClientToolOnQueue, TakesNoReplyToAnEarlierProcessOfItsIdForItsOwn)
{
    const TemporaryDirectory directory;
    const std::string output = directory.File("output");
    ChildProcess tool([&] {
        const RawQueue queue(m_Server.GetQueue());
        queue.Send(getpid(), MessageText(0, 1, ControlPayload(2, getpid(), 7)));
        queue.Send(getpid(), MessageText(7, 2, std::string(600, 'x')));
        dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDOUT_FILENO);
        execl(TOOL, TOOL, "connect", "--queue", m_Server.GetAddress().c_str(), nullptr);
        return 127;
    });
    EXPECT_EQ(tool.WaitForExitStatus(), 0);
    std::ifstream file(output);
    std::string line;
    std::getline(file, line);
    EXPECT_THAT(line, EndsWith(" had connection 1"));
}

TEST_F(ClientToolOnQueue, SendsATextAndPrintsTheAnswer)
{
    const ToolResult result = Client({"send", "2", "hello", "--answer"});
    EXPECT_EQ(result.output, "category 2, 5 bytes: hello\n");
    EXPECT_EQ(result.status, 0);
}

TEST_F(ClientToolOverTcp, SendsATextAndPrintsTheAnswer)
{
    const ToolResult result = Client({"send", "2", "hello", "--answer"});
    EXPECT_EQ(result.output, "category 2, 5 bytes: hello\n");
    EXPECT_EQ(result.status, 0);
}

TEST_F(ClientToolOnQueue, SendsAFileByteForByte)
{
    const TemporaryDirectory directory;
    const std::string file = directory.WriteFile("payload", std::string("a\0\n\"", 4));
    const ToolResult result = Client({"send", "2", "@" + file, "--answer", "--json"});
    EXPECT_EQ(json::parse(result.output), (json{{"category", 2},
                                                {"connection", 1},
                                                {"length", 4},
                                                {"text", std::string("a\0\n\"", 4)}}));
}

TEST_F(ClientToolOverTcp, SendsTheLargestPayload)
{
    const TemporaryDirectory directory;
    const std::string payload(2040, 'p');
    const std::string file = directory.WriteFile("payload", payload);
    const ToolResult result = Client({"send", "2", "@" + file, "--answer", "--json"});
    EXPECT_EQ(json::parse(result.output)["text"], payload);
}

TEST_F(ClientToolOverTcp, RefusesAPayloadThatNoFrameHolds)
{
    const TemporaryDirectory directory;
    const std::string file = directory.WriteFile("payload", std::string(2041, 'p'));
    const ToolResult result = Client({"send", "2", "@" + file});
    EXPECT_EQ(result.errors,
              "velahost-client: a payload of 2041 bytes; the transport takes 2040\n");
    EXPECT_EQ(result.status, 2);
}

TEST_F(ClientToolOnQueue, RefusesAPayloadThatNoMessageHolds)
{
    const TemporaryDirectory directory;
    const std::string file = directory.WriteFile("payload", std::string(501, 'p'));
    EXPECT_EQ(Client({"send", "2", "@" + file}).status, 2);
    EXPECT_EQ(NextConnection(m_Options), 1);
}

TEST_F(ClientToolOnQueue, GivesUpWaitingForAnAnswerAndReleasesItsConnection)
{
    const ToolResult result = Client({"send", "3", "hello", "--answer", "--within", "0.1"});
    EXPECT_EQ(result.errors, "velahost-client: no answer from the server\n");
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(NextConnection(m_Options), 1);
}

TEST_F(ClientToolOverTcp, GivesUpWaitingForAnAnswer)
{
    const ToolResult result = Client({"send", "3", "hello", "--answer", "--within", "0.1"});
    EXPECT_EQ(result.errors, "velahost-client: no answer from the server\n");
    EXPECT_EQ(result.status, 1);
}

/// The process id in "listening as process ID".
int ListeningProcess(ToolProcess& tool)
{
    const std::string line = tool.ReadErrorLine();
    const std::string start = "listening as process ";
    EXPECT_THAT(line, testing::StartsWith(start));
    return std::stoi(line.substr(start.size()));
}

TEST_F(ClientToolOnQueue, PrintsWhatTheServerSends)
{
    ToolProcess tool(Arguments({"listen", "--count", "2", "--json"}, m_Options));
    const int pid = ListeningProcess(tool);
    EXPECT_EQ(pid, tool.GetPid());
    const RawQueue queue(m_Server.GetQueue());
    queue.Send(pid, MessageText(1, 7, "one"));
    queue.Send(pid, MessageText(1, 8, ""));
    EXPECT_EQ(tool.WaitForExitStatus(), 0);
    std::istringstream lines(tool.GetOutput());
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(json::parse(line),
              (json{{"category", 7}, {"connection", 1}, {"length", 3}, {"text", "one"}}));
    std::getline(lines, line);
    EXPECT_EQ(json::parse(line)["category"], 8);
    EXPECT_EQ(NextConnection(m_Options), 1);
}

TEST_F(ClientToolOnQueue, SaysGoodbyeWhenItIsInterrupted)
{
    for (const int signalNumber : {SIGINT, SIGTERM}) {
        ToolProcess tool(Arguments({"listen"}, m_Options));
        ListeningProcess(tool);
        EXPECT_EQ(NextConnection(m_Options), 2);
        tool.Kill(signalNumber);
        EXPECT_EQ(tool.WaitForExitStatus(), 0);
        EXPECT_EQ(NextConnection(m_Options), 1);
    }
}

TEST_F(ClientToolOnQueue, StopsListeningAfterASilence)
{
    EXPECT_EQ(Client({"listen", "--silence", "0.05"}).status, 0);
}

TEST_F(ClientToolOverTcp, StopsListeningAfterASilence)
{
    EXPECT_EQ(Client({"listen", "--silence", "0.05"}).status, 0);
}

void ExpectMeasurement(const ToolResult& result, unsigned int messages, unsigned int size)
{
    const json document = json::parse(result.output);
    EXPECT_EQ(document["messages"], messages);
    EXPECT_EQ(document["size"], size);
    EXPECT_GT(document["rate"], 0.0);
    const json& times = document["microseconds"];
    EXPECT_LE(times["least"], times["median"]);
    EXPECT_LE(times["median"], times["p90"]);
    EXPECT_LE(times["p90"], times["p99"]);
    EXPECT_LE(times["p99"], times["most"]);
    unsigned int counted = 0;
    for (const json& row : document["histogram"]) {
        counted += row["count"].get<unsigned int>();
    }
    EXPECT_EQ(counted, messages);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.status, 0);
}

TEST_F(ClientToolOnQueue, MeasuresEachMessage)
{
    ExpectMeasurement(
        Client({"bench", "--count", "200", "--size", "500", "--window", "4", "--json"}), 200, 500);
    EXPECT_EQ(NextConnection(m_Options), 1);
}

TEST_F(ClientToolOverTcp, MeasuresEachMessage)
{
    ExpectMeasurement(Client({"bench", "--count", "200", "--size", "2040", "--json"}), 200, 2040);
}

TEST_F(ClientToolOverTcp, DrawsAHistogram)
{
    const ToolResult result = Client({"bench", "--count", "50"});
    EXPECT_THAT(result.output, testing::StartsWith("50 messages of 100 bytes answered in "));
    EXPECT_THAT(result.output, HasSubstr(" us |#"));
}

TEST_F(ClientToolOverTcp, EndsAMeasurementWhenItsTimeIsUp)
{
    const ToolResult result = Client({"bench", "--count", "1000000", "--seconds", "1", "--json"});
    const json document = json::parse(result.output);
    EXPECT_GE(document["seconds"], 1.0);
    EXPECT_LT(document["messages"], 1000000);
    EXPECT_EQ(result.status, 0);
}

TEST_F(ClientToolOnQueue, RefusesToMeasureWhatNoMessageHolds)
{
    const ToolResult result = Client({"bench", "--size", "501"});
    EXPECT_EQ(result.errors,
              "velahost-client: the transport takes payloads of at most 500 bytes\n");
    EXPECT_EQ(result.status, 2);
}

TEST(ClientToolUsage, AServerThatIsNotThereIsReported)
{
    const TemporaryDirectory directory;
    const auto [socket, port] = UnusedPort();
    const std::string queue = directory.WriteFile("queue", "") + ":q";
    const std::string tcp = "127.0.0.1:" + std::to_string(port);
    EXPECT_EQ(RunTool({TOOL, "connect", "--queue", queue}).errors,
              "velahost-client: no server at " + queue + "\n");
    EXPECT_EQ(RunTool({TOOL, "connect", "--queue", queue}).status, 1);
    EXPECT_EQ(RunTool({TOOL, "connect", "--tcp", tcp}).errors,
              "velahost-client: no server at " + tcp + "\n");
    EXPECT_EQ(RunTool({TOOL, "connect", "--tcp", tcp}).status, 1);
}

TEST(ClientToolUsage, AnAddressOfAnotherFormIsReported)
{
    for (const char* address : {"localhost:80", "127.0.0.1", "127.0.0.1:x", "127.0.0.1:99999"}) {
        const ToolResult result = RunTool({TOOL, "connect", "--tcp", address});
        EXPECT_EQ(result.errors, std::string("velahost-client: not HOST:PORT: ") + address + "\n");
        EXPECT_EQ(result.status, 2);
    }
    for (const char* address : {"/tmp", "/tmp:", "/tmp:ab"}) {
        const ToolResult result = RunTool({TOOL, "connect", "--queue", address});
        EXPECT_EQ(result.errors, std::string("velahost-client: not PATH:ID: ") + address + "\n");
        EXPECT_EQ(result.status, 2);
    }
}

TEST(ClientToolUsage, WrongArgumentsHaveTheirOwnStatus)
{
    const std::vector<std::vector<std::string>> wrong{
        {},
        {"unknown"},
        {"connect"},
        {"connect", "--queue", "/tmp:q", "--tcp", "127.0.0.1:1"},
        {"send", "--tcp", "127.0.0.1:1"},
        {"send", "--tcp", "127.0.0.1:1", "65536", "text"},
        {"send", "--tcp", "127.0.0.1:1", "two", "text"},
        {"bench", "--tcp", "127.0.0.1:1", "--count", "0"},
        {"bench", "--tcp", "127.0.0.1:1", "--count", "1000001"},
        {"bench", "--tcp", "127.0.0.1:1", "--window", "17"},
        {"bench", "--tcp", "127.0.0.1:1", "--size", "2041"}};
    for (const std::vector<std::string>& arguments : wrong) {
        EXPECT_EQ(RunTool(Arguments(arguments, {})).status, 2) << testing::PrintToString(arguments);
    }
    EXPECT_EQ(RunTool({TOOL, "send", "--tcp", "127.0.0.1:1", "2", "@/no/such/file"}).status, 2);
}

TEST(ClientToolUsage, TheManualPageDescribesTheOptions)
{
    EXPECT_EQ(OptionsOfManualPage(MANUAL_PAGE),
              OptionsOfHelp(TOOL, {"connect", "send", "listen", "bench"}));
}

} // namespace
