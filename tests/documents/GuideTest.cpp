#include "Documents.h"

#include "support/ChildProcess.h"
#include "support/Janitor.h"
#include "support/RawQueue.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace velahost_test;

constexpr char s_QueueId = 'G';

/// The fenced blocks of that language in `text`, in order.
std::vector<std::string> Blocks(const std::string& text, const std::string& language)
{
    std::vector<std::string> blocks;
    const std::string fence = "\n```" + language + "\n";
    for (std::size_t at = text.find(fence); at != std::string::npos; at = text.find(fence, at)) {
        at += fence.size();
        blocks.push_back(text.substr(at, text.find("\n```", at) + 1 - at));
    }
    return blocks;
}

/// What the document says under a heading that ends in that file's name.
std::string Section(const std::string& fileName)
{
    const std::string document = ReadProjectFile("docs/guide.md");
    const std::size_t start = document.find(": " + fileName + "\n");
    if (start == std::string::npos) {
        throw std::runtime_error("no section for " + fileName);
    }
    return document.substr(start, document.find("\n## ", start) - start);
}

/// A program whose output is read line by line. At destruction it has ended.
class Program
{
public:
    explicit Program(const std::string& command) : m_Output(popen(command.c_str(), "re"), pclose) {}

    /// Empty at the end.
    std::string ReadLine()
    {
        std::array<char, 256> line{};
        return std::fgets(line.data(), line.size(), m_Output.get()) != nullptr ? line.data() : "";
    }
    std::string ReadRest()
    {
        std::string rest;
        for (std::string line = ReadLine(); !line.empty(); line = ReadLine()) {
            rest += line;
        }
        return rest;
    }

private:
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> m_Output;
};

/// The programs of the guide, in a directory with their settings.
class GuidePrograms : public ::testing::Test
{
protected:
    void SetUp() override
    {
        WriteSettings(Blocks(ReadProjectFile("docs/guide.md"), "ini").at(0));
        janitor::Register(janitor::Kind::MessageQueue, m_KeyFile, s_QueueId);
    }
    void TearDown() override { janitor::Remove(janitor::Kind::MessageQueue, m_KeyFile, s_QueueId); }

    void WriteSettings(const std::string& settings) const
    {
        m_Directory.WriteFile("capitals.conf", settings);
    }

    /// `program` in the directory of the settings; it ends in any case.
    std::string Command(const std::string& program, const std::string& arguments) const
    {
        return "cd " + m_Directory.GetPath() + " && exec timeout 60 " + program + ' ' + arguments;
    }

    /// The server's queue; -1 when there is none, or none was ever made.
    int FindQueue() const
    {
        const key_t key = ftok(m_KeyFile.c_str(), s_QueueId);
        return key != -1 ? msgget(key, 0) : -1;
    }

    const std::vector<std::string> m_Transcripts = Blocks(ReadProjectFile("docs/guide.md"), "text");
    TemporaryDirectory m_Directory;
    const std::string m_KeyFile = m_Directory.File("capitals.key");
};

TEST(Guide, IsMadeOfTheFilesThatAreBuilt)
{
    for (const char* name : {"server.cpp", "QueueClient.h", "client.cpp"}) {
        std::string code;
        for (const std::string& block : Blocks(Section(name), "cpp")) {
            code += (code.empty() ? "" : "\n") + block;
        }
        EXPECT_EQ(code, ReadProjectFile(std::string("examples/guide/") + name)) << name;
    }
}

TEST_F(GuidePrograms, PrintWhatTheGuideSays)
{
    Program server(Command(GUIDE_SERVER, "capitals.conf"));
    std::string served = server.ReadLine();
    ASSERT_EQ(served, "serving\n");
    EXPECT_EQ(Program(Command(GUIDE_CLIENT, "capitals.key hello 'good bye'")).ReadRest(),
              m_Transcripts.at(1));
    served += server.ReadRest();
    EXPECT_EQ(std::regex_replace(served, std::regex("PID( ?=?)[0-9]+"), "PID$014660"),
              m_Transcripts.at(0));
    EXPECT_EQ(FindQueue(), -1);
}

TEST_F(GuidePrograms, TakeNoReplyToAnEarlierProcessForTheirOwn)
{
    Program server(Command(GUIDE_SERVER, "capitals.conf"));
    ASSERT_EQ(server.ReadLine(), "serving\n");
    const std::string output = m_Directory.File("output");
    ChildProcess client([&] {
        const RawQueue queue(FindQueue());
        queue.Send(getpid(), MessageText(0, 1, ControlPayload(2, getpid(), 7)));
        queue.Send(getpid(), MessageText(7, 2, std::string(600, 'x')));
        dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDOUT_FILENO);
        execl(GUIDE_CLIENT, GUIDE_CLIENT, m_KeyFile.c_str(), "hello", nullptr);
        return 127;
    });
    EXPECT_EQ(client.WaitForExitStatus(), 0);
    std::ifstream file(output);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "connection 1\nHELLO\n");
}

TEST_F(GuidePrograms, LeaveNoQueueWhenTheServerCannotServe)
{
    WriteSettings("Category = 20\n");
    EXPECT_EQ(Program(Command(GUIDE_SERVER, "capitals.conf")).ReadRest(), "no category 20\n");
    EXPECT_NE(ftok(m_KeyFile.c_str(), s_QueueId), -1);
    EXPECT_EQ(FindQueue(), -1);
}

TEST_F(GuidePrograms, RefuseBrokenSettingsAsTheGuideSays)
{
    WriteSettings("# which messages are for the service\nCategory = two\n");
    EXPECT_EQ(Program(Command(GUIDE_SERVER, "capitals.conf")).ReadRest(), m_Transcripts.at(2));
}

} // namespace
