#include "support/CapturedStdout.h"

#include "support/ChildProcess.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace velahost_test;

ino_t StdoutFile()
{
    struct stat file = {};
    fstat(STDOUT_FILENO, &file);
    return file.st_ino;
}

TEST(CapturedStdout, TakesWhatEveryLayerWritesInOrder)
{
    CapturedStdout output;
    std::cout << "stream ";
    std::cout.flush();
    std::printf("printf ");
    std::fflush(stdout);
    ASSERT_EQ(write(STDOUT_FILENO, "write ", 6), 6);
    EXPECT_EQ(output.GetText(), "stream printf write ");
    std::puts("puts");
    EXPECT_EQ(output.Stop(), "stream printf write puts\n");
}

TEST(CapturedStdout, TakesWhatIsStillInABuffer)
{
    CapturedStdout output;
    std::printf("unflushed");
    EXPECT_EQ(output.GetText(), "unflushed");
}

TEST(CapturedStdout, DoesNotTakeWhatWasBufferedBefore)
{
    CapturedStdout outer;
    std::printf("before");
    {
        CapturedStdout inner;
        std::printf("inside");
        EXPECT_EQ(inner.Stop(), "inside");
    }
    EXPECT_EQ(outer.Stop(), "before");
}

TEST(CapturedStdout, TakesAChildsOutput)
{
    CapturedStdout output;
    ChildProcess child([] {
        std::puts("from the child");
        return 0;
    });
    child.Wait();
    EXPECT_EQ(output.Stop(), "from the child\n");
}

TEST(CapturedStdout, TakesMoreThanAPipeWouldHold)
{
    const std::string much(1 << 20, 'm');
    CapturedStdout output;
    std::fwrite(much.data(), 1, much.size(), stdout);
    EXPECT_EQ(output.Stop(), much);
}

TEST(CapturedStdout, GivesStandardOutputBack)
{
    const ino_t before = StdoutFile();
    {
        CapturedStdout output;
        EXPECT_NE(StdoutFile(), before);
        output.Stop();
        EXPECT_EQ(StdoutFile(), before);
        EXPECT_EQ(output.Stop(), "") << "a second stop changes nothing";
        EXPECT_EQ(StdoutFile(), before);
    }
    {
        const CapturedStdout output;
    }
    EXPECT_EQ(StdoutFile(), before);
}

} // namespace
