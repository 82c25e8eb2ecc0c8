#include "Documents.h"

#include "support/InstallDirectory.h"
#include "support/Interpose.h"
#include "support/QueueKey.h"
#include "support/SemaphoreFile.h"
#include "support/Sockets.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_Ipc/ClientSocket.h>
#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_Ipc/IpcSocketTransport.h>
#include <VelaHost_OS/ProcessMutex.h>
#include <VelaHost_OS/ThreadMutex.h>
#include <VelaHost_Utility/PropertiesEx.h>
#include <VelaHost_Utility/Timer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cxxabi.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <sys/select.h>
#include <typeinfo>
#include <vector>

namespace {

using namespace VelaHost_Ipc;
using namespace VelaHost_Utility;
using namespace velahost_test;
using ::testing::UnorderedElementsAreArray;
using VelaHost_OS::ProcessMutex;

/// The first `count` cells of every row of the table whose first cell matches `first`.
std::set<std::string> Rows(const std::string& first, std::size_t count)
{
    std::string pattern = R"((?:^|\n)\| ()" + first;
    for (std::size_t i = 1; i < count; ++i) {
        pattern += R"( \| [^|\n]*)";
    }
    const std::regex row(pattern + R"() \|)");
    const std::string document = ReadProjectFile("docs/errors.md");
    std::set<std::string> rows;
    for (std::sregex_iterator match(document.begin(), document.end(), row), end; match != end;
         ++match) {
        EXPECT_TRUE(rows.insert((*match)[1]).second) << "told twice: " << (*match)[1];
    }
    return rows;
}

/// The texts of all source files and of the library's own headers.
std::vector<std::string> Sources()
{
    std::vector<std::string> sources;
    for (const char* directory : {"src", "include"}) {
        const std::string root = std::string(PROJECT_DIRECTORY) + "/";
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root + directory)) {
            if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") {
                sources.push_back(ReadProjectFile(entry.path().string().substr(root.size())));
            }
        }
    }
    return sources;
}

std::string DescribeRow(const Exception& e)
{
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(typeid(e).name(), nullptr, nullptr, &status), std::free);
    const std::string type = name.get();
    const std::string text =
        std::regex_replace(e.GetText(), std::regex("SysErr=0x[0-9a-f]+"), "SysErr=0x…");
    std::ostringstream row;
    row << "0x" << std::hex << std::uppercase << e.GetErrorCode() << std::dec << " | "
        << type.substr(type.rfind(':') + 1) << " | " << text << " | " << e.GetContext().m_File
        << " | " << e.GetContext().m_Line;
    return row.str();
}

/// The rows of the failures that have been brought about.
class Failures
{
public:
    void Expect(const std::function<void()>& action)
    {
        try {
            action();
        } catch (const Exception& e) {
            EXPECT_TRUE(m_Rows.insert(DescribeRow(e)).second) << "twice: " << DescribeRow(e);
            return;
        }
        ADD_FAILURE() << "no failure, after " << m_Rows.size();
    }

    const std::set<std::string>& GetRows() const { return m_Rows; }

private:
    std::set<std::string> m_Rows;
};

void FailLocks(Failures& failures)
{
    VelaHost_OS::ThreadMutex mutex;
    const FailingCall call("pthread_mutex_lock", EINVAL);
    failures.Expect([&] { mutex.Lock(); });
}

void FailProcessMutex(Failures& failures)
{
    const InstallDirectory install;
    const std::string path = install.File("temp/mutex");
    const auto init = [] { ProcessMutex("mutex").Init(); };
    for (const char* function : {"open", "ftok", "semget", "semctl"}) {
        {
            // What it leaves can be found only as long as the file is there.
            const SemaphoreFile semaphore(path);
            const FailingCall call(function, EACCES);
            failures.Expect(init);
        }
        std::filesystem::remove(path);
    }
    const SemaphoreFile semaphore(path);
    ProcessMutex mutex("mutex");
    mutex.Init();
    {
        const FailingCall call("open", EACCES, 2);
        failures.Expect(init);
    }
    const FailingCall call("semctl", EPERM);
    failures.Expect([&] { mutex.Delete(); });
}

void FailTimer(Failures& failures)
{
    constexpr unsigned int longTime = 3'600'000;
    Timer timer(longTime, nullptr, false);
    timer.Start();
    failures.Expect([&] { timer.Start(); });
}

void FailReaders(Failures& failures)
{
    const std::string nul("a = 1\0\n", 7);
    const auto flat = [&](const std::string& text) {
        std::istringstream in(text);
        failures.Expect([&] { Properties().Load(in); });
    };
    const auto sectioned = [&](const std::string& text) {
        std::istringstream in(text);
        failures.Expect([&] { PropertiesEx().Load(in, true); });
    };
    std::istream unreadable(nullptr);
    failures.Expect([&] { Properties().Load(unreadable); });
    failures.Expect([&] { PropertiesEx().Load(unreadable, true); });
    for (const std::string& text : {nul, std::string("a"), std::string("a = \"b"),
                                    std::string("a = \"b\" c"), std::string("a = b c")}) {
        flat(text);
        sectioned(text);
    }
    flat("a = 1\na = 1");
    flat("a = 1\na = \"1\"");
    sectioned("</A>");
    sectioned("<A>\n</B>");
    sectioned("<A>\n<A>");
    sectioned("<A b");
}

void FailClientSocket(Failures& failures, const std::string& path)
{
    const OpenedSockets opened;
    const auto host = [] { ClientSocket("127.0.0.1", 1); };
    const auto local = [&] { ClientSocket client(path); };
    for (const char* function : {"socket", "connect"}) {
        for (const std::function<void()>& action : {std::function<void()>(host), {local}}) {
            const FailingCall call(function, ECONNREFUSED);
            failures.Expect(action);
        }
    }
    const Hook connected(interposed::connect,
                         [](int, const sockaddr*, socklen_t) -> std::optional<int> { return 0; });
    const ClientSocket client("127.0.0.1", 1);
    std::string text;
    failures.Expect([&] { client << text; });
    failures.Expect([&] { client >> text; });
}

void FailServerSocket(Failures& failures, const std::string& path)
{
    const OpenedSockets opened;
    const auto port = [] { ServerSocket server(0); };
    const auto local = [&] {
        std::filesystem::remove(path);
        ServerSocket server(path);
    };
    for (const char* function : {"socket", "bind", "listen"}) {
        for (const std::function<void()>& action : {std::function<void()>(port), {local}}) {
            const FailingCall call(function, EADDRINUSE);
            failures.Expect(action);
        }
    }
    ServerSocket server;
    ServerSocket peer;
    std::string text;
    failures.Expect([&] { server << text; });
    failures.Expect([&] { server >> text; });
    failures.Expect([&] { server.Accept(peer); });
}

void FailSocketTransport(Failures& failures)
{
    const DescriptorLimit limit(FD_SETSIZE + 100);
    const OccupiedDescriptors occupied(FD_SETSIZE);
    IpcConnectionManager<IpcSocketTransport> manager(nullptr);
    failures.Expect([&] { IpcSocketTransport transport({0}, manager, nullptr); });
}

void FailQueue(Failures& failures)
{
    const QueueKey key;
    const IpcMsgQueue queue(key.GetPath(), key.GetId(), true);
    const auto recreate = [&] { IpcMsgQueue again(key.GetPath(), key.GetId(), true); };
    {
        const FailingCall call("msgctl", EPERM);
        failures.Expect(recreate);
    }
    {
        const FailingCall call("msgget", ENOSPC, 2);
        failures.Expect(recreate);
    }
    IpcMsgBuf message{};
    failures.Expect([&] { queue.Send(message, 0); });    // no type
    failures.Expect([&] { queue.Receive(message, 1); }); // the queue is gone
    const IpcConnectionManager<IpcMsgQueueTransport> manager(nullptr);
    failures.Expect([&] { manager.RequireConnection(1); });
}

TEST(ErrorTable, HasExactlyTheThrowSitesOfTheSources)
{
    // A site is `ThrowSite("FILE", LINE)`, or a function that calls `ThrowSite("FILE", line)` and
    // is called with the lines of that file alone.
    const std::regex whole(R"re(ThrowSite\("([^"]+)", (\d+)\))re");
    const std::regex file(
        R"re(Site\(unsigned int line\)\s*\{\s*return [^;]*ThrowSite\("([^"]+)", line\))re");
    const std::regex line(R"(Site\((\d+)\))");
    std::set<std::string> sites;
    const auto collect = [&](const std::string& source, const std::regex& pattern,
                             const auto& describe) {
        for (std::sregex_iterator match(source.begin(), source.end(), pattern), end; match != end;
             ++match) {
            sites.insert(describe(*match));
        }
    };
    for (const std::string& source : Sources()) {
        collect(source, whole, [](const std::smatch& m) { return m.str(1) + ":" + m.str(2); });
        if (std::smatch function; std::regex_search(source, function, file)) {
            collect(source, line,
                    [&](const std::smatch& m) { return function.str(1) + ":" + m.str(1); });
        }
    }
    std::set<std::string> told;
    for (const std::string& row : Rows("0x2[0-9A-F]{3}", 5)) {
        const std::size_t lineStart = row.rfind(" | ");
        const std::size_t fileStart = row.rfind(" | ", lineStart - 1);
        told.insert(row.substr(fileStart + 3, lineStart - fileStart - 3) + ":" +
                    row.substr(lineStart + 3));
    }
    EXPECT_THAT(told, UnorderedElementsAreArray(sites));
}

TEST(ErrorTable, TellsEveryFailureAsItComes)
{
    const TemporaryDirectory directory;
    Failures failures;
    FailLocks(failures);
    FailProcessMutex(failures);
    FailTimer(failures);
    FailReaders(failures);
    FailClientSocket(failures, directory.File("socket"));
    FailServerSocket(failures, directory.File("socket"));
    FailSocketTransport(failures);
    FailQueue(failures);
    EXPECT_THAT(failures.GetRows(), UnorderedElementsAreArray(Rows("0x2[0-9A-F]{3}", 5)));
}

TEST(ErrorTable, HasTheFormatsOfAllLogLines)
{
    const std::regex call(R"re(log->(Log\w+)\(\s*"([^"]+)")re");
    std::set<std::string> calls;
    for (const std::string& source : Sources()) {
        for (std::sregex_iterator match(source.begin(), source.end(), call), end; match != end;
             ++match) {
            calls.insert(match->str(1) + " | `" + match->str(2) + "`");
        }
    }
    EXPECT_THAT(Rows("Log(?:Error|Info|Debug)", 2), UnorderedElementsAreArray(calls));
}

TEST(FormatsDocument, TellsEveryLastError)
{
    const std::regex text(R"re((?:Fail|SetLastError)\("([^"]+)"|missingSignText = "([^"]+)")re");
    std::set<std::string> texts;
    for (const std::string& source : Sources()) {
        for (std::sregex_iterator match(source.begin(), source.end(), text), end; match != end;
             ++match) {
            texts.insert(match->str(1) + match->str(2));
        }
    }
    EXPECT_EQ(texts.size(), 12U);
    const std::string document = ReadProjectFile("docs/formats.md");
    for (const std::string& lastError : texts) {
        EXPECT_THAT(document, ::testing::HasSubstr("\n| " + lastError + " | "));
    }
}

} // namespace
