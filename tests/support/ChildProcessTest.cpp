#include "support/ChildProcess.h"

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace velahost_test;

bool Exists(pid_t process)
{
    return kill(process, 0) == 0 || errno != ESRCH;
}

TEST(ChildProcess, EndsWithTheStatusOfItsBody)
{
    ChildProcess child([] { return 42; });
    EXPECT_EQ(child.WaitForExitStatus(), 42);
    EXPECT_EQ(child.WaitForExitStatus(), 42) << "may be asked again";
    EXPECT_TRUE(WIFEXITED(child.Wait()));
}

TEST(ChildProcess, TellsTheSignalThatEndedIt)
{
    ChildProcess child([] {
        pause();
        return 0;
    });
    child.Kill(SIGTERM);
    EXPECT_EQ(child.WaitForExitStatus(), -SIGTERM);
    EXPECT_TRUE(WIFSIGNALED(child.Wait()));
}

TEST(ChildProcess, IsReapedWhenItIsWaitedFor)
{
    ChildProcess child([] { return 0; });
    child.Wait();
    EXPECT_FALSE(Exists(child.GetPid()));
    child.Kill(SIGTERM); // Must not meet whoever has the number now.
}

TEST(ChildProcess, IsKilledAndReapedWithItsOwner)
{
    pid_t pid = 0;
    {
        const ChildProcess child([] {
            for (;;) {
                pause();
            }
            return 0;
        });
        pid = child.GetPid();
        EXPECT_TRUE(Exists(pid));
    }
    EXPECT_FALSE(Exists(pid));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(ChildProcess, DiesWithItsParent)
{
    // The reading end shows the end of file when the last writer, the grandchild, is dead.
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ChildProcess parent([&] {
        const ChildProcess child([&] {
            char ready = 'r';
            EXPECT_EQ(write(ends[1], &ready, 1), 1);
            for (;;) {
                pause();
            }
            return 0;
        });
        pause();
        return 0;
    });
    close(ends[1]);
    char ready = 0;
    ASSERT_EQ(read(ends[0], &ready, 1), 1);
    parent.Kill(SIGKILL);
    parent.Wait();
    pollfd end{ends[0], POLLIN, 0};
    ASSERT_EQ(poll(&end, 1, 30'000), 1);
    EXPECT_EQ(read(ends[0], &ready, 1), 0);
    close(ends[0]);
}

TEST(ChildProcess, IsAbortedByAnExceptionAndLeavesItsParentsObjectsAlone)
{
    const TemporaryDirectory directory;
    ChildProcess child([]() -> int {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        throw std::runtime_error("of the child");
    });
    EXPECT_EQ(child.WaitForExitStatus(), -SIGABRT);
    EXPECT_TRUE(std::filesystem::exists(directory.GetPath()));
}

TEST(ChildProcess, RunsAProgramWithItsArguments)
{
    const TemporaryDirectory directory;
    const std::string output = directory.File("output");
    ChildProcess child({"/bin/sh", "-c", "echo \"$1\"; echo error >&2; exit 3", "sh", "two words"},
                       output);
    EXPECT_EQ(child.WaitForExitStatus(), 3);
    std::ifstream file(output);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "two words\nerror\n");
}

TEST(ChildProcess, TellsThatAProgramCouldNotBeRun)
{
    ChildProcess child({"/nowhere/at/all"});
    EXPECT_EQ(child.WaitForExitStatus(), 127);
}

TEST(ChildProcess, WaitsThroughSignals)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR2, &action, &before);
    const pid_t owner = getpid();
    ChildProcess child([owner] {
        kill(owner, SIGUSR2);
        return 5;
    });
    EXPECT_EQ(child.WaitForExitStatus(), 5);
    sigaction(SIGUSR2, &before, nullptr);
}

} // namespace
