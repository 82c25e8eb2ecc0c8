#include <internal/unix/OSSystem.h>

#include "support/CapturedStdout.h"
#include "support/ThrownException.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_Ipc/IpcSocketException.h>
#include <VelaHost_Ipc/ServerSocket.h>
#include <VelaHost_Ipc/Socket.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <dlfcn.h>

/// Memory for an exception about to be thrown: as if the allocator had met a failure on its way to
/// success.
extern "C" void* __cxa_allocate_exception(std::size_t size) noexcept
{
    using Function = void* (*)(std::size_t) noexcept;
    static const auto real =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "__cxa_allocate_exception"));
    void* memory = real(size);
    errno = ENOMEM;
    return memory;
}

namespace {

using namespace velahost_test;
using VelaHost_Utility::SystemException;

TEST(SystemError, KeepsTheErrnoThatTheAllocationOfTheExceptionChanges)
{
    CapturedStdout output;
    errno = EINTR;
    EXPECT_TRUE(
        Throws<SystemException>([] { VelaHost_OS::ThrowSystemError(); }, SystemFailure(EINTR)));
}

TEST(SystemError, IsThrownForMinusOneAlone)
{
    CapturedStdout output;
    VelaHost_OS::CheckErrno(0);
    VelaHost_OS::CheckErrno(-2);
    errno = EACCES;
    EXPECT_TRUE(
        Throws<SystemException>([] { VelaHost_OS::CheckErrno(-1); }, SystemFailure(EACCES)));
}

TEST(SystemError, IsThrownForEveryResultButZero)
{
    CapturedStdout output;
    VelaHost_OS::CheckResult(0);
    errno = 0;
    EXPECT_TRUE(Throws<SystemException>([] { VelaHost_OS::CheckResult(EBUSY); }, SystemFailure(0)));
    EXPECT_TRUE(Throws<SystemException>([] { VelaHost_OS::CheckResult(-1); }, SystemFailure(0)));
}

TEST(SocketError, KeepsTheErrnoThatTheAllocationOfTheExceptionChanges)
{
    CapturedStdout output;
    VelaHost_Ipc::ServerSocket listener;
    VelaHost_Ipc::ServerSocket peer;
    FailingCall accept("accept", ECONNABORTED);
    EXPECT_TRUE(Throws<VelaHost_Ipc::IpcSocketException>(
        [&] { listener.Accept(peer); },
        {0x2104, "IpcSocketException", "src/unix/ServerSocket", 98, ECONNABORTED}));
}

} // namespace
