#include <VelaHost_Utility/Exception.h>

#include "support/CapturedStdout.h"
#include "support/Interpose.h"
#include "support/QueueKey.h"
#include "support/ThrownException.h"

#include <VelaHost_OS/ThreadMutex.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;

constexpr Exception::Context s_Site(nullptr, "src/Somewhere", 17, DefaultExceptionLogger);

TEST(SystemException, ShowsTheErrnoOfItsConstruction)
{
    CapturedStdout output;
    errno = 13;
    const SystemException e(s_Site, 0x2002);
    EXPECT_EQ(e.GetSysErr(), 13U);
    EXPECT_EQ(e.GetText(), "SystemException(SysErr=0xd)");
    EXPECT_EQ(output.Stop(), "SystemException(SysErr=0xd) at src/Somewhere:17\n");
}

TEST(ThreadMutex, DestroyFailureKeepsMemory)
{
    QueueKey key;
    VelaHost_OS::ThreadMutex mutex;
    FailingCall lock("pthread_mutex_lock", 35);
    errno = 4;
    EXPECT_TRUE(Throws<SystemException>([&] { mutex.Lock(); }, SystemFailure(4)));
}

} // namespace
