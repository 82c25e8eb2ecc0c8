#include <VelaHost_Utility/Exception.h>

#include "support/CapturedStdout.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"
#include "support/interpose/Interposed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <latch>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr Exception::Context s_Site(nullptr, "src/Somewhere", 17, DefaultExceptionLogger);

void LogOne(const char* what, const Exception::Context& site = s_Site)
{
    const NotImplementedException e(site, what);
}

std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// Counts the attempts to load the trace library; none succeeds.
class NoTraceLibrary
{
public:
    NoTraceLibrary()
        : m_Hook(interposed::dlopen, [this](const char* file, int) -> std::optional<void*> {
              if (std::string_view(file) != "libplume.so") {
                  return std::nullopt;
              }
              ++m_Attempts;
              errno = ENOENT;
              return nullptr;
          })
    {}

    int GetAttempts() const { return m_Attempts; }

private:
    std::atomic<int> m_Attempts{0};
    Hook<void*(const char*, int)> m_Hook;
};

TEST(LoggerWithoutTraceLibrary, WritesTheLineAndOneNewlineToStandardOutput)
{
    const NoTraceLibrary none;
    CapturedStdout output;
    LogOne("what");
    EXPECT_EQ(output.Stop(), "NotImplementedException(what) at src/Somewhere:17\n");
}

TEST(LoggerWithoutTraceLibrary, WritesTheLineByOneCall)
{
    const NoTraceLibrary none;
    std::vector<std::string> lines;
    const Hook<int(const char*)> output(interposed::puts, [&](const char* line) {
        lines.emplace_back(line);
        return 0;
    });
    CapturedStdout rest;
    LogOne("a");
    LogOne("b");
    EXPECT_EQ(rest.Stop(), "");
    EXPECT_THAT(lines, ElementsAre("NotImplementedException(a) at src/Somewhere:17",
                                   "NotImplementedException(b) at src/Somewhere:17"));
}

TEST(LoggerWithoutTraceLibrary, ShowsTheWholePathAndAnUnsignedLine)
{
    const NoTraceLibrary none;
    CapturedStdout output;
    LogOne("what", {nullptr, "/a/very/../long/path.cpp", UINT_MAX, DefaultExceptionLogger});
    LogOne("", {nullptr, "", 0, DefaultExceptionLogger});
    EXPECT_EQ(output.Stop(),
              "NotImplementedException(what) at /a/very/../long/path.cpp:4294967295\n"
              "NotImplementedException() at :0\n");
}

TEST(LoggerWithoutTraceLibrary, DoesNotShowTheComponent)
{
    const NoTraceLibrary none;
    CapturedStdout output;
    LogOne("what", {"Component", "src/Somewhere", 17, DefaultExceptionLogger});
    EXPECT_EQ(output.Stop(), "NotImplementedException(what) at src/Somewhere:17\n");
}

TEST(LoggerWithoutTraceLibrary, TakesTheTextLiterally)
{
    const NoTraceLibrary none;
    CapturedStdout output;
    LogOne("%s%n%d");
    EXPECT_EQ(output.Stop(), "NotImplementedException(%s%n%d) at src/Somewhere:17\n");
}

TEST(LoggerWithoutTraceLibrary, WritesWholeLinesOfAnyLength)
{
    const NoTraceLibrary none;
    const std::string what(100'000, 'w');
    CapturedStdout output;
    LogOne(what.c_str());
    EXPECT_EQ(output.Stop(), "NotImplementedException(" + what + ") at src/Somewhere:17\n");
}

TEST(LoggerWithoutTraceLibrary, KeepsErrno)
{
    const NoTraceLibrary none;
    CapturedStdout output;
    errno = 77;
    LogOne("first: the library is searched");
    EXPECT_EQ(errno, 77);
    LogOne("second");
    EXPECT_EQ(errno, 77);
}

TEST(LoggerWithoutTraceLibrary, IsSilentAboutAnOutputThatFails)
{
    ChildProcess child([] {
        const NoTraceLibrary none;
        dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
        errno = 77;
        LogOne("lost");
        const bool kept = errno == 77;
        close(STDOUT_FILENO);
        LogOne("lost too");
        return kept && errno == 77 ? 0 : 1;
    });
    EXPECT_EQ(child.WaitForExitStatus(), 0);
}

TEST(LoggerWithoutTraceLibrary, HasWrittenTheLineWhenTheProcessAborts)
{
    CapturedStdout output;
    ChildProcess child([]() -> int {
        const rlimit noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        const NoTraceLibrary none;
        LogOne("last words");
        std::abort();
    });
    EXPECT_EQ(child.WaitForExitStatus(), -SIGABRT);
    EXPECT_EQ(output.Stop(), "NotImplementedException(last words) at src/Somewhere:17\n");
}

TEST(LoggerWithoutTraceLibrary, WritesWholeLinesFromManyThreadsAtOnce)
{
    constexpr int threadCount = 8;
    constexpr int perThread = 100;
    const NoTraceLibrary none;
    CapturedStdout output;
    std::latch start(threadCount);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&start, thread] {
            start.arrive_and_wait();
            for (int i = 0; i < perThread; ++i) {
                const BadParmException e(s_Site, static_cast<unsigned int>(thread), "%d", i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<std::string> lines = LinesOf(output.Stop());
    std::set<std::string> expected;
    for (int thread = 0; thread < threadCount; ++thread) {
        for (int i = 0; i < perThread; ++i) {
            expected.insert("BadParmException(Index=" + std::to_string(thread) + "," +
                            std::to_string(i) + ") at src/Somewhere:17");
        }
    }
    EXPECT_EQ(lines.size(), expected.size());
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()), expected);
    EXPECT_LE(none.GetAttempts(), 1);
}

TEST(LoggerSearch, LoadsTheTraceLibraryAtMostOnceInAProcess)
{
    // A child: in this process somebody may have searched already.
    ChildProcess child([] {
        const NoTraceLibrary none;
        CapturedStdout output;
        LogOne("one");
        LogOne("two");
        LogOne("three");
        return none.GetAttempts();
    });
    EXPECT_EQ(child.WaitForExitStatus(), 1);
}

TEST(LoggerSearch, LoadsTheTraceLibraryAtMostOnceFromManyThreads)
{
    ChildProcess child([] {
        constexpr int threadCount = 8;
        const NoTraceLibrary none;
        CapturedStdout output;
        std::latch start(threadCount);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < threadCount; ++thread) {
            threads.emplace_back([&start] {
                start.arrive_and_wait();
                LogOne("all at once");
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        return LinesOf(output.Stop()).size() == threadCount ? none.GetAttempts() : 100;
    });
    EXPECT_EQ(child.WaitForExitStatus(), 1);
}

TEST(LoggerSearch, DoesNotHappenBeforeTheFirstFailure)
{
    ChildProcess child([] {
        const NoTraceLibrary none;
        const NotImplementedException e({nullptr, "", 0, [](const Exception&) {}}, "quiet");
        return none.GetAttempts();
    });
    EXPECT_EQ(child.WaitForExitStatus(), 0);
}

/// A process that fails a few times in sight of one of the stand-in trace libraries.
struct Traced
{
    int exitStatus;
    std::vector<std::string> calls;
    std::vector<std::string> output;
};

Traced RunTraced(const std::string& variant, const std::string& label, const std::string& module,
                 int failures)
{
    const TemporaryDirectory directory;
    const std::string record = directory.WriteFile("record", "");
    ChildProcess child({"/usr/bin/env",
                        "LD_LIBRARY_PATH=" VELAHOST_TEST_PLUME_DIRECTORY "/" + variant,
                        "PLUME_RECORD=" + record, "PLUME_LABEL=" + label, "PLUME_MODULE=" + module,
                        VELAHOST_TEST_FAILURE_PROBE, std::to_string(failures)},
                       directory.File("output"));
    const int exitStatus = child.WaitForExitStatus();
    const auto read = [](const std::string& path) {
        std::stringstream content;
        content << std::ifstream(path).rdbuf();
        return LinesOf(content.str());
    };
    return {exitStatus, read(record), read(directory.File("output"))};
}

TEST(LoggerWithTraceLibrary, TracesUnderTheLabelAndTheModule)
{
    const Traced run = RunTraced("WHOLE", "7", "11", 3);
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_THAT(run.calls, ElementsAre("label Exception", "module VelaHost",
                                       "trace 11 7 SystemException(SysErr=0x1) at src/Probe:20",
                                       "module Probe",
                                       "trace 11 7 SystemException(SysErr=0x2) at src/Probe:20",
                                       "module VelaHost",
                                       "trace 11 7 SystemException(SysErr=0x3) at src/Probe:20"));
    EXPECT_THAT(run.output, IsEmpty());
}

TEST(LoggerWithTraceLibrary, PassesALabelOfZeroAndAsksAgain)
{
    const Traced run = RunTraced("WHOLE", "0", "-2147483648", 2);
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_THAT(run.calls,
                ElementsAre("label Exception", "module VelaHost",
                            "trace -2147483648 0 SystemException(SysErr=0x1) at src/Probe:20",
                            "label Exception", "module Probe",
                            "trace -2147483648 0 SystemException(SysErr=0x2) at src/Probe:20"));
    EXPECT_THAT(run.output, IsEmpty());
}

TEST(LoggerWithTraceLibrary, WritesToStandardOutputWhenTheModuleIsZero)
{
    const Traced run = RunTraced("WHOLE", "7", "0", 2);
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_THAT(run.calls, ElementsAre("label Exception", "module VelaHost", "module Probe"));
    EXPECT_THAT(run.output, ElementsAre("SystemException(SysErr=0x1) at src/Probe:20",
                                        "SystemException(SysErr=0x2) at src/Probe:20"));
}

class LoggerWithIncompleteTraceLibrary : public ::testing::TestWithParam<const char*>
{};

TEST_P(LoggerWithIncompleteTraceLibrary, DoesAsWithoutOne)
{
    const Traced run = RunTraced(GetParam(), "7", "11", 2);
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_THAT(run.calls, IsEmpty());
    EXPECT_THAT(run.output, ElementsAre("SystemException(SysErr=0x1) at src/Probe:20",
                                        "SystemException(SysErr=0x2) at src/Probe:20"));
}

INSTANTIATE_TEST_SUITE_P(Each, LoggerWithIncompleteTraceLibrary,
                         ::testing::Values("LACKS_LABEL", "LACKS_MODULE", "LACKS_TRACE"),
                         [](const auto& variant) { return std::string(variant.param); });

TEST(LoggerWithTraceLibrary, IsNotFoundOutsideTheSearchPath)
{
    const Traced run = RunTraced("nowhere", "7", "11", 1);
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_THAT(run.calls, IsEmpty());
    EXPECT_THAT(run.output, ElementsAre("SystemException(SysErr=0x1) at src/Probe:20"));
}

} // namespace
