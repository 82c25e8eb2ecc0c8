#include "support/ChildProcess.h"
#include "support/InstallDirectory.h"
#include "support/QueueKey.h"
#include "support/SemaphoreFile.h"
#include "support/TemporaryDirectory.h"
#include "tools/ToolProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

using namespace velahost_test;
using testing::HasSubstr;

std::pair<Descriptor, Descriptor> MakePipe()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

/// A message_server whose output is read line by line; it is killed at destruction if it still
/// runs.
class ServerProcess
{
public:
    explicit ServerProcess(const std::string& configFile) : ServerProcess(configFile, MakePipe()) {}

    /// The next line with that text in it; empty when the server ends before.
    std::string ReadUntil(const std::string& text)
    {
        std::string line;
        do {
            line = ReadLine();
        } while (!line.empty() && line.find(text) == std::string::npos);
        return line;
    }

    void Kill(int signalNumber) { m_Process.Kill(signalNumber); }
    int WaitForExitStatus() { return m_Process.WaitForExitStatus(); }

private:
    ServerProcess(const std::string& configFile, std::pair<Descriptor, Descriptor> output)
        : m_Output(std::move(output.first)), m_Process([&] {
              dup2(output.second.Get(), STDOUT_FILENO);
              execl(MESSAGE_SERVER, MESSAGE_SERVER, "--last", configFile.c_str(), nullptr);
              return 127;
          })
    {}

    /// With its newline; empty at the end.
    std::string ReadLine() const
    {
        std::string line;
        for (char character = 0; character != '\n' && read(m_Output.Get(), &character, 1) == 1;) {
            line += character;
        }
        return line;
    }

    Descriptor m_Output;
    ChildProcess m_Process;
};

constexpr const char* s_Name = "server";

/// What a server needs: a queue's key, an install directory and a place for its status page.
class MessageServer : public testing::Test
{
protected:
    /// A configuration with a queue and what else is given.
    std::string Configure(const std::string& sections) const
    {
        return m_Directory.WriteFile("server.conf",
                                     std::string("Name = \"") + s_Name + "\"\nStatusPage = \"" +
                                         m_Directory.File("status") + "\"\n<Queue>\nPath = \"" +
                                         m_Key.GetPath() + "\"\nId = \"" + m_Key.GetId() +
                                         "\"\n</Queue>\n" + sections);
    }

    std::string GetQueueAddress() const
    {
        return std::string(m_Key.GetPath()) + ':' + m_Key.GetId();
    }

    const TemporaryDirectory m_Directory;
    const QueueKey m_Key;
    const InstallDirectory m_Install;
    const SemaphoreFile m_Lock{m_Install.File(std::string("temp/") + s_Name)};
};

TEST_F(MessageServer, ListensOnAFreePortWhereNoneIsConfiguredAndEndsInOrder)
{
    ServerProcess server(Configure("<Tcp>\n</Tcp>\n<Handler echo>\nCategory = 2\n</Handler>\n"));
    const std::string line = server.ReadUntil("TCP port ");
    ASSERT_NE(line, "");
    const int port = std::stoi(line.substr(line.rfind(' ') + 1));
    ASSERT_NE(server.ReadUntil("serving"), "");
    const std::string address = "127.0.0.1:" + std::to_string(port);
    EXPECT_EQ(RunTool({MESSAGE_CLIENT, "--tcp", address}).status, 0);

    server.Kill(SIGTERM);
    EXPECT_THAT(server.ReadUntil("stopped"), HasSubstr("stopped after 1 messages\n"));
    EXPECT_EQ(server.WaitForExitStatus(), 0);
    EXPECT_EQ(m_Key.FindQueue(), -1);
}

TEST_F(MessageServer, LeavesNoQueueWhenItCannotServe)
{
    for (const char* sections :
         {"<Handler echo>\nCategory = 25\n</Handler>\n",
          "<Handler mirror>\nCategory = 2\n</Handler>\n", "<Tcp 65536>\n</Tcp>\n"}) {
        const ToolResult result = RunTool({MESSAGE_SERVER, "--last", Configure(sections)});
        EXPECT_THAT(result.output, HasSubstr("got the lock\n")) << sections;
        EXPECT_EQ(result.status, 1) << sections;
        EXPECT_EQ(m_Key.FindQueue(), -1) << sections;
    }
}

TEST_F(MessageServer, GetsTheConnectionOfAClientBackThatFails)
{
    ServerProcess server(Configure("<Handler sum>\nCategory = 3\n</Handler>\n"));
    ASSERT_NE(server.ReadUntil("serving"), "");
    const ToolResult failed =
        RunTool({MESSAGE_CLIENT, "--queue", GetQueueAddress(), "--category", "3"});
    EXPECT_EQ(failed.errors, "message_client: answer 0 differs from what was sent\n");
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(RunTool({MESSAGE_CLIENT, "--queue", GetQueueAddress(), "--count", "0"}).output,
                HasSubstr(" has connection 1\n"));
}

TEST(MessageClient, DisconnectsOthersOnlyOnAQueue)
{
    const ToolResult result =
        RunTool({MESSAGE_CLIENT, "--tcp", "127.0.0.1:1", "--disconnect", "1"});
    EXPECT_THAT(result.errors, testing::StartsWith("usage: "));
    EXPECT_EQ(result.status, 2);
}

} // namespace
