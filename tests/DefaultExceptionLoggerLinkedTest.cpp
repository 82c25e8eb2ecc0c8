#include <VelaHost_Utility/Exception.h>

#include "support/CapturedStdout.h"
#include "support/ChildProcess.h"
#include "support/interpose/Interposed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <latch>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// A program that defines the trace library's functions itself.

namespace {

std::mutex s_CallsMutex;
std::vector<std::string> s_Calls;
/// What the look-ups write, by name; nothing for `std::nullopt`.
std::function<std::optional<long>(const char*)> s_FindLabel;
std::function<std::optional<long>(const char*)> s_FindModule;

void Record(const std::string& call)
{
    const std::lock_guard lock(s_CallsMutex);
    s_Calls.push_back(call);
}

} // namespace

extern "C" {
long PlumeGetLabelHandle(const char* label, long* handle);
long PlumeGetModuleHandle(const char* module, long* handle);
}

long PlumeGetLabelHandle(const char* label, long* handle)
{
    Record(std::string("label ") + label);
    if (const std::optional<long> found = s_FindLabel(label)) {
        *handle = *found;
    }
    errno = 99;
    return -1;
}

long PlumeGetModuleHandle(const char* module, long* handle)
{
    Record(std::string("module ") + module);
    if (const std::optional<long> found = s_FindModule(module)) {
        *handle = *found;
    }
    errno = 98;
    return -1;
}

class PlumeTraceInterface
{
public:
    static void PlumeTrace(long module, long label, const char* line);
};

void PlumeTraceInterface::PlumeTrace(long module, long label, const char* line)
{
    Record("trace " + std::to_string(module) + " " + std::to_string(label) + " " + line);
    errno = 97;
}

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;
using ::testing::ElementsAre;

void LogOne(const char* what, const char* component = nullptr)
{
    const NotImplementedException e({component, "src/Here", 3, DefaultExceptionLogger}, what);
}

/// Runs `body` in a process that has logged nothing yet, because the label outlives a test; its
/// expectations count.
void InNewProcess(const std::function<void()>& body)
{
    ChildProcess child([&] {
        s_FindLabel = [](const char*) { return 7; };
        s_FindModule = [](const char*) { return 11; };
        body();
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.WaitForExitStatus(), 0);
}

std::string TraceOf(const std::string& handles, const std::string& what)
{
    return "trace " + handles + " NotImplementedException(" + what + ") at src/Here:3";
}

TEST(LinkedTrace, IsUsedWithoutLoadingAnything)
{
    InNewProcess([] {
        const CallCounter loads("dlopen", Scope::AnyThread);
        CapturedStdout output;
        LogOne("a");
        EXPECT_THAT(s_Calls,
                    ElementsAre("label Exception", "module VelaHost", TraceOf("11 7", "a")));
        EXPECT_EQ(output.Stop(), "");
        EXPECT_EQ(loads.GetCallCount(), 0U);
    });
}

TEST(LinkedTrace, LooksTheLabelUpUntilItHasOne)
{
    InNewProcess([] {
        long nextLabel = 0;
        s_FindLabel = [&](const char*) { return nextLabel; };
        LogOne("a");
        LogOne("b");
        nextLabel = -9;
        LogOne("c");
        nextLabel = 10;
        LogOne("d");
        EXPECT_THAT(s_Calls,
                    ElementsAre("label Exception", "module VelaHost", TraceOf("11 0", "a"),
                                "label Exception", "module VelaHost", TraceOf("11 0", "b"),
                                "label Exception", "module VelaHost", TraceOf("11 -9", "c"),
                                "module VelaHost", TraceOf("11 -9", "d")));
    });
}

TEST(LinkedTrace, LooksTheModuleUpForEveryFailure)
{
    InNewProcess([] {
        long nextModule = 1;
        s_FindModule = [&](const char*) { return nextModule++; };
        LogOne("a");
        LogOne("b");
        EXPECT_THAT(s_Calls, ElementsAre("label Exception", "module VelaHost", TraceOf("1 7", "a"),
                                         "module VelaHost", TraceOf("2 7", "b")));
    });
}

TEST(LinkedTrace, UsesTheComponentsModule)
{
    InNewProcess([] {
        s_FindModule = [](const char* name) { return std::string(name) == "Own" ? 5 : 6; };
        LogOne("a", "Own");
        LogOne("b", "");
        LogOne("c");
        EXPECT_THAT(s_Calls,
                    ElementsAre("label Exception", "module Own", TraceOf("5 7", "a"), "module ",
                                TraceOf("6 7", "b"), "module VelaHost", TraceOf("6 7", "c")));
    });
}

TEST(LinkedTrace, FallsBackToStandardOutputForAModuleOfZeroOnly)
{
    InNewProcess([] {
        long nextModule = 0;
        s_FindModule = [&](const char*) { return nextModule; };
        CapturedStdout output;
        LogOne("a");
        nextModule = -1;
        LogOne("b");
        nextModule = 0;
        LogOne("c");
        EXPECT_EQ(output.Stop(), "NotImplementedException(a) at src/Here:3\n"
                                 "NotImplementedException(c) at src/Here:3\n");
        EXPECT_THAT(s_Calls, ElementsAre("label Exception", "module VelaHost", "module VelaHost",
                                         TraceOf("-1 7", "b"), "module VelaHost"));
    });
}

TEST(LinkedTrace, TakesHandlesThatAreNotWrittenForZero)
{
    InNewProcess([] {
        CapturedStdout output;
        s_FindLabel = [](const char*) { return std::nullopt; };
        LogOne("a");
        s_FindModule = [](const char*) { return std::nullopt; };
        LogOne("b");
        EXPECT_THAT(s_Calls, ElementsAre("label Exception", "module VelaHost", TraceOf("11 0", "a"),
                                         "label Exception", "module VelaHost"));
        EXPECT_EQ(output.Stop(), "NotImplementedException(b) at src/Here:3\n");
    });
}

TEST(LinkedTrace, KeepsErrno)
{
    InNewProcess([] {
        errno = 13;
        LogOne("a");
        EXPECT_EQ(errno, 13);
        const SystemException e({nullptr, "src/Here", 3, DefaultExceptionLogger}, 0x2002);
        EXPECT_EQ(e.GetSysErr(), 13U);
        EXPECT_EQ(errno, 13);
    });
}

TEST(LinkedTrace, KeepsTheLabelWhenALaterLookUpFails)
{
    InNewProcess([] {
        std::latch slowInside(1);
        std::latch fastDone(1);
        const std::thread::id fast = std::this_thread::get_id();
        s_FindLabel = [&](const char*) -> std::optional<long> {
            if (std::this_thread::get_id() == fast) {
                return 7;
            }
            slowInside.count_down();
            fastDone.wait();
            return 0;
        };
        std::thread slow([] { LogOne("slow"); });
        slowInside.wait();
        LogOne("fast");
        fastDone.count_down();
        slow.join();
        s_Calls.clear();
        LogOne("next");
        EXPECT_THAT(s_Calls, ElementsAre("module VelaHost", TraceOf("11 7", "next")));
    });
}

TEST(LinkedTrace, TakesLinesFromManyThreadsAtOnce)
{
    InNewProcess([] {
        constexpr std::size_t threadCount = 8;
        constexpr std::size_t perThread = 50;
        std::latch start(threadCount);
        std::vector<std::thread> threads;
        for (std::size_t thread = 0; thread < threadCount; ++thread) {
            threads.emplace_back([&start] {
                start.arrive_and_wait();
                for (std::size_t i = 0; i < perThread; ++i) {
                    LogOne("x");
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        std::size_t labels = 0;
        std::size_t traces = 0;
        for (const std::string& call : s_Calls) {
            labels += call == "label Exception" ? 1U : 0U;
            traces += call == TraceOf("11 7", "x") ? 1U : 0U;
        }
        EXPECT_EQ(traces, threadCount * perThread);
        EXPECT_GE(labels, 1U);
        EXPECT_LE(labels, threadCount);
    });
}

} // namespace
