#include <VelaHost_OS/SharedMemory.h>

#include "support/CancelledThread.h"
#include "support/ChildProcess.h"
#include "support/FileState.h"
#include "support/InstallDirectory.h"
#include "support/Interpose.h"
#include "support/Pipe.h"
#include "support/TemporaryDirectory.h"
#include "support/interpose/FileStatus.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_OS/SystemInfo.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {

using namespace velahost_test;
using VelaHost_OS::GetLastError;
using VelaHost_OS::SharedMemory;

constexpr unsigned int s_MiB = 1024 * 1024;

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

/// A mapping of a test, unmapped at its end.
class Mapping
{
public:
    Mapping(void* address, unsigned int length) : m_Address(address), m_Length(length) {}
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping()
    {
        if (IsValid()) {
            munmap(m_Address, m_Length);
        }
    }

    bool IsValid() const { return m_Address != MAP_FAILED; }
    volatile char& operator[](unsigned int index) const
    {
        return static_cast<volatile char*>(m_Address)[index];
    }
    const void* GetAddress() const { return m_Address; }

private:
    void* m_Address;
    unsigned int m_Length;
};

class SharedMemoryTest : public testing::Test
{
protected:
    unsigned int PageSize() const { return static_cast<unsigned int>(sysconf(_SC_PAGESIZE)); }

    InstallDirectory m_Install;
    const std::string m_Path = m_Install.File("region");
    // What a test starts with, and a guard for what it leaves behind.
    CreationMask m_Mask{022};
};

using SharedMemoryConstructor = SharedMemoryTest;
using SharedMemoryCreate = SharedMemoryTest;
using SharedMemoryOpen = SharedMemoryTest;
using SharedMemoryMap = SharedMemoryTest;
using SharedMemoryDelete = SharedMemoryTest;
using SharedMemoryDestructor = SharedMemoryTest;

TEST_F(SharedMemoryConstructor, OpensNothing)
{
    const CallCounter opens("open");
    const SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.GetSize(), 0U);
    EXPECT_EQ(memory.GetFd(), -1);
    EXPECT_EQ(memory.GetName(), m_Path);
    EXPECT_EQ(opens.GetCallCount(), 0U);
    EXPECT_FALSE(std::filesystem::exists(m_Path));
}

TEST_F(SharedMemoryConstructor, TakesTheNameAsItStands)
{
    EXPECT_EQ(SharedMemory("").GetName(), "");
    EXPECT_EQ(SharedMemory("a//b/../c ").GetName(), "a//b/../c ");
}

TEST_F(SharedMemoryConstructor, CopiesTheName)
{
    std::string name = m_Path;
    const SharedMemory memory(name.c_str());
    name.assign(name.size(), 'x');
    EXPECT_EQ(memory.GetName(), m_Path);
}

TEST_F(SharedMemoryConstructor, LaysTheFieldsOutInOrder)
{
    static_assert(!std::is_polymorphic_v<SharedMemory>);
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Create(4711), 0);
    int words[2];
    std::memcpy(words, static_cast<const void*>(&memory), sizeof words);
    EXPECT_EQ(words[0], 4711);
    EXPECT_EQ(words[1], memory.GetFd());
    EXPECT_EQ(reinterpret_cast<const char*>(&memory.GetName()) -
                  reinterpret_cast<const char*>(&memory),
              8);
    EXPECT_EQ(sizeof memory, 8 + sizeof(std::string));
}

TEST_F(SharedMemoryCreate, MakesAFileOfZeros)
{
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Create(5000), 0);
    EXPECT_EQ(memory.GetSize(), 5000U);
    EXPECT_TRUE(IsOpen(memory.GetFd()));
    EXPECT_EQ(ReadFile(m_Path), std::string(5000, '\0'));
}

TEST_F(SharedMemoryCreate, OpensForReadingAndWritingOnly)
{
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Create(10), 0);
    EXPECT_EQ(fcntl(memory.GetFd(), F_GETFL) & (O_ACCMODE | O_APPEND | O_NONBLOCK), O_RDWR);
}

TEST_F(SharedMemoryCreate, OfNoBytesMakesAnEmptyFile)
{
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Create(0), 0);
    EXPECT_EQ(memory.GetSize(), 0U);
    EXPECT_TRUE(IsOpen(memory.GetFd()));
    EXPECT_TRUE(std::filesystem::is_empty(m_Path));
}

TEST_F(SharedMemoryCreate, WritesOnceAndFlushes)
{
    std::vector<std::string> calls;
    SharedMemory memory(m_Path.c_str());
    {
        const Hook write(interposed::write, [&](int fd, const void*, std::size_t size) {
            calls.push_back("write " + std::to_string(size));
            EXPECT_EQ(fd, memory.GetFd());
            EXPECT_EQ(GetCreationMask(), 022U);
            return std::nullopt;
        });
        const Hook fsync(interposed::fsync, [&](int fd) {
            calls.push_back("fsync");
            EXPECT_EQ(fd, memory.GetFd());
            return std::nullopt;
        });
        ASSERT_EQ(memory.Create(3 * s_MiB), 0);
    }
    EXPECT_THAT(calls, testing::ElementsAre("write 3145728", "fsync"));
}

TEST_F(SharedMemoryCreate, IsNotCancelledHalfWay)
{
    const unsigned int descriptors = CountDescriptors();
    for (const std::string step : {"open", "write", "fsync"}) {
        SCOPED_TRACE(step);
        const std::string path = m_Install.File(step);
        const auto cancelAt = [&](const std::string& call) {
            if (call == step) {
                CancelMyself();
            }
            return std::nullopt;
        };
        int result = -1;
        EXPECT_TRUE(OutlivesCancellation([&] {
            SharedMemory memory(path.c_str());
            const Hook open(interposed::open, [&](const char*, int, mode_t) {
                return std::optional<int>(cancelAt("open"));
            });
            const Hook write(interposed::write, [&](int, const void*, std::size_t) {
                return std::optional<ssize_t>(cancelAt("write"));
            });
            const Hook fsync(interposed::fsync,
                             [&](int) { return std::optional<int>(cancelAt("fsync")); });
            result = memory.Create(100);
        }));
        EXPECT_EQ(result, 0);
        EXPECT_EQ(ReadFile(path), std::string(100, '\0'));
        EXPECT_EQ(GetCreationMask(), 022U);
    }
    EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(SharedMemoryCreate, RefusesAPathThatExists)
{
    std::ofstream(m_Path) << "somebody's";
    const unsigned int descriptors = CountDescriptors();
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Create(100), -1);
    EXPECT_EQ(GetLastError(), EEXIST);
    EXPECT_EQ(memory.GetFd(), -1);
    EXPECT_EQ(memory.GetSize(), 0U);
    EXPECT_EQ(ReadFile(m_Path), "somebody's");
    EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(SharedMemoryCreate, FollowsNoLink)
{
    std::filesystem::create_symlink(m_Install.File("elsewhere"), m_Path);
    EXPECT_EQ(SharedMemory(m_Path.c_str()).Create(100), -1);
    EXPECT_EQ(GetLastError(), EEXIST);
    EXPECT_FALSE(std::filesystem::exists(m_Install.File("elsewhere")));
}

TEST_F(SharedMemoryCreate, LeavesTheCreationMaskAtZeroWhenTheFileExists)
{
    std::ofstream(m_Path) << "somebody's";
    ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(100), -1);
    EXPECT_EQ(GetCreationMask(), 0U);
}

TEST_F(SharedMemoryCreate, LeavesTheCreationMaskAtZeroWhenTheFileCannotBeMade)
{
    SharedMemory memory(m_Install.File("missing/region").c_str());
    ASSERT_EQ(memory.Create(100), -1);
    EXPECT_EQ(GetLastError(), ENOENT);
    EXPECT_EQ(GetCreationMask(), 0U);
}

TEST_F(SharedMemoryCreate, RestoresTheCreationMaskOnSuccess)
{
    const CreationMask mask(0137);
    ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(100), 0);
    EXPECT_EQ(GetCreationMask(), 0137U);
}

TEST_F(SharedMemoryCreate, RestoresTheCreationMaskWhenTheZerosCannotBeWritten)
{
    const CreationMask mask(0137);
    const FailingCall write("write", ENOSPC);
    ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(100), -1);
    EXPECT_EQ(GetCreationMask(), 0137U);
}

/// `open` with its reason to fail.
class SharedMemoryRefused : public SharedMemoryTest, public testing::WithParamInterface<int>
{};

INSTANTIATE_TEST_SUITE_P(Errno, SharedMemoryRefused,
                         testing::Values(EACCES, EMFILE, ENFILE, ENOSPC, EROFS, EINTR));

TEST_P(SharedMemoryRefused, CreateFails)
{
    SharedMemory memory(m_Path.c_str());
    {
        const FailingCall open("open", GetParam());
        EXPECT_EQ(memory.Create(100), -1);
        EXPECT_EQ(GetLastError(), GetParam());
    }
    EXPECT_EQ(memory.GetFd(), -1);
    EXPECT_EQ(memory.GetSize(), 0U);
    EXPECT_EQ(GetCreationMask(), 0U);
}

TEST_P(SharedMemoryRefused, OpenFails)
{
    std::ofstream(m_Path) << "content";
    SharedMemory memory(m_Path.c_str());
    {
        const FailingCall open("open", GetParam());
        EXPECT_EQ(memory.Open(), -1);
        EXPECT_EQ(GetLastError(), GetParam());
    }
    EXPECT_EQ(memory.GetFd(), -1);
    EXPECT_EQ(memory.GetSize(), 0U);
}

class SharedMemoryPermissions : public SharedMemoryTest,
                                public testing::WithParamInterface<PermissionRow>
{};

INSTANTIATE_TEST_SUITE_P(Rows, SharedMemoryPermissions, testing::ValuesIn(s_PermissionRows));

TEST_P(SharedMemoryPermissions, AreTheInstallDirectorysWhateverTheMask)
{
    const CreationMask mask(077);
    m_Install.SetMode(GetParam().directory);
    ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(1), 0);
    EXPECT_EQ(GetMode(m_Path), GetParam().file);
}

TEST_F(SharedMemoryCreate, GivesEverybodyAccessWhenTheInstallDirectoryIsMissing)
{
    const InstallVariable variable(m_Install.File("missing"));
    ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(1), 0);
    EXPECT_EQ(GetMode(m_Path), 0666U);
}

TEST_F(SharedMemoryCreate, GivesEverybodyAccessWhenTheVariableIsEmpty)
{
    const InstallVariable variable("");
    ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(1), 0);
    EXPECT_EQ(GetMode(m_Path), 0666U);
}

TEST_F(SharedMemoryCreate, GivesEverybodyAccessWhenTheInstallDirectoryCannotBeExamined)
{
    m_Install.SetMode(0700);
    const FailingCall stat("stat", EACCES);
    ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(1), 0);
    EXPECT_TRUE(stat.WasHit());
    EXPECT_EQ(GetMode(m_Path), 0666U);
}

TEST_F(SharedMemoryCreate, ReadsTheInstallDirectoryPastJanuary2038)
{
    m_Install.SetMode(0700);
    WideTimespec times[2]{};
    times[0].tv_sec = times[1].tv_sec = 2'209'032'000; // in 2040
#ifdef SYS_utimensat_time64
    constexpr long call = SYS_utimensat_time64;
#else
    constexpr long call = SYS_utimensat;
#endif
    ASSERT_EQ(syscall(call, AT_FDCWD, m_Install.GetPath().c_str(), times, 0), 0);
    ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(1), 0);
    EXPECT_EQ(GetMode(m_Path), 0600U);
}

TEST_F(SharedMemoryCreate, LooksAtTheDefaultDirectoryWithoutTheVariable)
{
    const InstallVariable variable(std::nullopt);
    std::string examined;
    {
        const Hook stat(interposed::stat, [&](const char* path, FileStatus* status) {
            examined = path;
            SetMode(status, S_IFDIR | 0751);
            return 0;
        });
        ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(1), 0);
    }
    EXPECT_EQ(examined, "/usr/vela");
    EXPECT_EQ(GetMode(m_Path), 0640U);
}

/// After a failure to write: no file, a descriptor, no size.
void ExpectNothingButTheDescriptor(const SharedMemory& memory)
{
    EXPECT_FALSE(std::filesystem::exists(memory.GetName()));
    EXPECT_TRUE(IsOpen(memory.GetFd()));
    EXPECT_EQ(memory.GetSize(), 0U);
}

TEST_F(SharedMemoryCreate, RemovesTheFileWhenTheWriteFails)
{
    const FailingCall write("write", EIO);
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Create(5000), -1);
    EXPECT_EQ(GetLastError(), EIO);
    ExpectNothingButTheDescriptor(memory);
}

TEST_F(SharedMemoryCreate, RemovesTheFileWhenTheWriteIsShort)
{
    unsigned int writes = 0;
    const CallCounter fsync("fsync");
    const Hook write(interposed::write, [&](int fd, const void* zeros, std::size_t size) {
        ++writes;
        return ::write(fd, zeros, size - 1);
    });
    SharedMemory memory(m_Path.c_str());
    errno = 0;
    EXPECT_EQ(memory.Create(5000), -1);
    EXPECT_EQ(GetLastError(), ENOSPC);
    EXPECT_EQ(writes, 1U);
    EXPECT_EQ(fsync.GetCallCount(), 0U);
    ExpectNothingButTheDescriptor(memory);
}

TEST_F(SharedMemoryCreate, RemovesTheFileWhenNothingIsWritten)
{
    const Hook write(interposed::write, [](int, const void*, std::size_t) { return 0; });
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Create(5000), -1);
    ExpectNothingButTheDescriptor(memory);
}

TEST_F(SharedMemoryCreate, RemovesTheFileWhenTheFlushFails)
{
    const FailingCall fsync("fsync", EIO);
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Create(5000), -1);
    EXPECT_EQ(GetLastError(), EIO);
    ExpectNothingButTheDescriptor(memory);
}

TEST_F(SharedMemoryCreate, ThatFailsForgetsTheSizeOfTheFormerFile)
{
    std::ofstream(m_Path) << std::string(4096, 'x');
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Open(), 0);
    ASSERT_EQ(memory.GetSize(), 4096U);
    ASSERT_EQ(memory.Delete(), 0);
    const FailingCall write("write", EIO);
    EXPECT_EQ(memory.Create(5000), -1);
    ExpectNothingButTheDescriptor(memory);
    EXPECT_EQ(memory.Map(), MAP_FAILED);
}

TEST_F(SharedMemoryCreate, KeepsTheCauseWhenTheFileCannotBeRemovedEither)
{
    const FailingCall fsync("fsync", EDQUOT);
    const FailingCall unlink("unlink", EBUSY);
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Create(5000), -1);
    EXPECT_EQ(GetLastError(), EDQUOT);
    EXPECT_TRUE(unlink.WasHit());
}

TEST_F(SharedMemoryCreate, KeepsTheCauseWhenTheZerosCannotBeUnmapped)
{
    const FailingCall write("write", EIO);
    const FailingCall unmap("munmap", ENOMEM);
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Create(4096), -1);
    EXPECT_EQ(GetLastError(), EIO);
    EXPECT_TRUE(unmap.WasHit());
}

TEST_F(SharedMemoryCreate, FailsWhenTheFileMayNotGrowThatLarge)
{
    // A limit that the kernel itself enforces by a short write.
    ChildProcess child([&] {
        const rlimit limit{4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::signal(SIGXFSZ, SIG_IGN);
        SharedMemory memory(m_Path.c_str());
        if (memory.Create(8192) != -1 || GetLastError() != ENOSPC || memory.GetSize() != 0) {
            return 1;
        }
        return std::filesystem::exists(m_Path) ? 2 : 0;
    });
    EXPECT_EQ(child.WaitForExitStatus(), 0);
}

/// Gives this process a small file system of its own at `path`; it goes with the process.
bool MountSmallFileSystem(const std::string& path)
{
    return (unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
           mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", path.c_str(), "tmpfs", 0, "size=64k") == 0;
}

TEST_F(SharedMemoryCreate, FailsOnAFullFileSystem)
{
    const std::string mounted = m_Install.File("temp");
    const std::string path = mounted + "/region";
    constexpr int notPermitted = 77;
    ChildProcess child([&] {
        if (!MountSmallFileSystem(mounted)) {
            return notPermitted;
        }
        SharedMemory memory(path.c_str());
        if (memory.Create(s_MiB) != -1 || GetLastError() != ENOSPC || memory.GetSize() != 0 ||
            !IsOpen(memory.GetFd()) || std::filesystem::exists(path)) {
            return 1;
        }
        // The removed file takes space as long as its descriptor is open.
        return memory.Create(4096) == 0 && std::filesystem::file_size(path) == 4096 ? 0 : 2;
    });
    const int status = child.WaitForExitStatus();
    if (status == notPermitted) {
        GTEST_SKIP() << "not permitted to mount a file system";
    }
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(std::filesystem::is_empty(mounted));
}

TEST_F(SharedMemoryCreate, TouchesNothingWithoutMemoryForTheZeros)
{
    const CallCounter opens("open");
    const CallCounter masks("umask");
    SharedMemory memory(m_Path.c_str());
    {
        const FailingCall mmap("mmap", ENOMEM);
        EXPECT_EQ(memory.Create(100), -1);
        EXPECT_EQ(GetLastError(), ENOMEM);
    }
    EXPECT_EQ(opens.GetCallCount(), 0U);
    EXPECT_EQ(masks.GetCallCount(), 0U);
    EXPECT_EQ(memory.GetFd(), -1);
    EXPECT_EQ(memory.GetSize(), 0U);
    EXPECT_FALSE(std::filesystem::exists(m_Path));
}

TEST_F(SharedMemoryCreate, GivesTheMemoryForTheZerosBack)
{
    void* mapped = nullptr;
    std::size_t mappedLength = 0;
    void* unmapped = nullptr;
    std::size_t unmappedLength = 0;
    {
        const Hook map(interposed::mmap, [&](void* hint, std::size_t length, int protection,
                                             int flags, int fd, off_t offset) {
            mappedLength = length;
            return mapped = ::mmap(hint, length, protection, flags, fd, offset);
        });
        const Hook unmap(interposed::munmap, [&](void* address, std::size_t length) {
            unmapped = address;
            unmappedLength = length;
            return std::nullopt;
        });
        ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(s_MiB), 0);
    }
    ASSERT_NE(mapped, nullptr);
    EXPECT_EQ(unmapped, mapped);
    EXPECT_EQ(unmappedLength, mappedLength);
}

void* CreateLargeRegion(void* memory)
{
    return reinterpret_cast<void*>(
        static_cast<std::intptr_t>(static_cast<SharedMemory*>(memory)->Create(16 * s_MiB)));
}

TEST_F(SharedMemoryCreate, NeedsNoStackForALargeRegion)
{
    SharedMemory memory(m_Path.c_str());
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, &attributes, CreateLargeRegion, &memory), 0);
    void* result = &memory;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(memory.GetSize(), 16 * s_MiB);
    EXPECT_EQ(std::filesystem::file_size(m_Path), 16 * s_MiB);
}

TEST_F(SharedMemoryCreate, LetsExactlyOneOfManyProcessesSucceed)
{
    constexpr int processes = 8;
    for (int round = 0; round < 20; ++round) {
        const std::string path = m_Path + std::to_string(round);
        const Pipe ready;
        const Pipe start;
        std::vector<std::unique_ptr<ChildProcess>> children;
        for (int i = 0; i < processes; ++i) {
            children.push_back(std::make_unique<ChildProcess>([&] {
                SharedMemory memory(path.c_str());
                ready.Send();
                start.Receive();
                if (memory.Create(4096) == 0) {
                    return 0;
                }
                return GetLastError() == EEXIST ? 1 : 2;
            }));
        }
        for (int i = 0; i < processes; ++i) {
            ASSERT_TRUE(ready.Receive());
        }
        for (int i = 0; i < processes; ++i) {
            start.Send();
        }
        std::vector<int> results;
        for (const auto& child : children) {
            results.push_back(child->WaitForExitStatus());
        }
        std::sort(results.begin(), results.end());
        EXPECT_THAT(results, testing::ElementsAre(0, 1, 1, 1, 1, 1, 1, 1));
        EXPECT_EQ(std::filesystem::file_size(path), 4096U);
    }
}

TEST_F(SharedMemoryCreate, ClosesWhatTheObjectHadOpen)
{
    SharedMemory memory(m_Path.c_str());
    {
        const FailingCall write("write", ENOSPC);
        ASSERT_EQ(memory.Create(100), -1);
    }
    const unsigned int descriptors = CountDescriptors();
    ASSERT_EQ(memory.Create(100), 0);
    EXPECT_EQ(CountDescriptors(), descriptors);
    ASSERT_EQ(memory.Open(), 0);
    EXPECT_EQ(CountDescriptors(), descriptors);
    ASSERT_EQ(memory.Create(100), -1);
    EXPECT_EQ(GetLastError(), EEXIST);
    EXPECT_EQ(memory.GetFd(), -1);
    EXPECT_EQ(CountDescriptors(), descriptors - 1);
}

TEST_F(SharedMemoryOpen, LearnsTheSize)
{
    std::ofstream(m_Path) << std::string(4096, 'x');
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Open(), 0);
    EXPECT_EQ(memory.GetSize(), 4096U);
    EXPECT_TRUE(IsOpen(memory.GetFd()));
    EXPECT_EQ(fcntl(memory.GetFd(), F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST_F(SharedMemoryOpen, LeavesTheFileAsItIs)
{
    std::ofstream(m_Path) << "content";
    chmod(m_Path.c_str(), 0600);
    ASSERT_EQ(SharedMemory(m_Path.c_str()).Open(), 0);
    EXPECT_EQ(ReadFile(m_Path), "content");
    EXPECT_EQ(GetMode(m_Path), 0600U);
    EXPECT_EQ(GetCreationMask(), 022U);
}

TEST_F(SharedMemoryOpen, LeavesTheDescriptorAtTheStart)
{
    std::ofstream(m_Path) << "content";
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Open(), 0);
    EXPECT_EQ(lseek(memory.GetFd(), 0, SEEK_CUR), 0);
}

TEST_F(SharedMemoryOpen, RefusesAMissingFile)
{
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Open(), -1);
    EXPECT_EQ(GetLastError(), ENOENT);
    EXPECT_EQ(memory.GetFd(), -1);
    EXPECT_EQ(memory.GetSize(), 0U);
    EXPECT_FALSE(std::filesystem::exists(m_Path));
}

TEST_F(SharedMemoryOpen, KeepsTheCauseWhenTheFormerFileCannotBeClosed)
{
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Create(4096), 0);
    const FailingCall open("open", EMFILE);
    const FailingCall close("close", EIO);
    EXPECT_EQ(memory.Open(), -1);
    EXPECT_EQ(GetLastError(), EMFILE);
    EXPECT_TRUE(close.WasHit());
}

TEST_F(SharedMemoryOpen, ThatFailsForgetsTheSizeOfTheFormerFile)
{
    std::ofstream(m_Path) << std::string(4096, 'x');
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Open(), 0);
    ASSERT_EQ(memory.GetSize(), 4096U);
    const FailingCall open("open", EMFILE);
    EXPECT_EQ(memory.Open(), -1);
    EXPECT_EQ(memory.GetFd(), -1);
    EXPECT_EQ(memory.GetSize(), 0U);
    EXPECT_EQ(memory.Map(), MAP_FAILED);
}

TEST_F(SharedMemoryOpen, DoesNotCheckTheSeeks)
{
    // Something that can't seek: the size is then the failed seek's result.
    ASSERT_EQ(mkfifo(m_Path.c_str(), 0600), 0);
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Open(), 0);
    EXPECT_EQ(memory.GetSize(), 0xFFFFFFFFU);
    EXPECT_EQ(memory.Map(), MAP_FAILED);
}

TEST_F(SharedMemoryOpen, IgnoresAFailedReturnToTheStart)
{
    std::ofstream(m_Path) << "content";
    SharedMemory memory(m_Path.c_str());
    const FailingCall seek("lseek", EIO, 2);
    EXPECT_EQ(memory.Open(), 0);
    EXPECT_TRUE(seek.WasHit());
    EXPECT_EQ(memory.GetSize(), 7U);
}

TEST_F(SharedMemoryOpen, FollowsAFailedCreation)
{
    // The usual way in: whoever comes second opens.
    SharedMemory first(m_Path.c_str());
    ASSERT_EQ(first.Create(300), 0);
    SharedMemory second(m_Path.c_str());
    ASSERT_EQ(second.Create(300), -1);
    EXPECT_EQ(second.Open(), 0);
    EXPECT_EQ(second.GetSize(), 300U);
}

TEST_F(SharedMemoryOpen, MeetsAFileThatIsStillBeingWritten)
{
    // Nothing tells an opener that the creator has finished: the size is that of the moment.
    SharedMemory creator(m_Path.c_str());
    SharedMemory opener(m_Path.c_str());
    {
        const Hook write(interposed::write, [&](int, const void*, std::size_t) {
            EXPECT_EQ(opener.Open(), 0);
            EXPECT_EQ(opener.GetSize(), 0U);
            return std::nullopt;
        });
        ASSERT_EQ(creator.Create(4096), 0);
    }
    ASSERT_EQ(opener.Open(), 0);
    EXPECT_EQ(opener.GetSize(), 4096U);
}

TEST_F(SharedMemoryMap, MapsTheWholeRegion)
{
    std::ofstream(m_Path) << std::string(4095, 'a') + 'z';
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Open(), 0);
    std::size_t length = 0;
    off_t offset = -1;
    const Hook map(interposed::mmap,
                   [&](void*, std::size_t mappedLength, int, int, int, off_t mappedOffset) {
                       length = mappedLength;
                       offset = mappedOffset;
                       return std::nullopt;
                   });
    const Mapping mapping(memory.Map(), 4096);
    ASSERT_TRUE(mapping.IsValid());
    EXPECT_EQ(length, 4096U);
    EXPECT_EQ(offset, 0);
    EXPECT_EQ(mapping[0], 'a');
    EXPECT_EQ(mapping[4095], 'z');
}

TEST_F(SharedMemoryMap, MapsAPart)
{
    const unsigned int page = PageSize();
    std::ofstream(m_Path) << std::string(page, 'a') + std::string(page, 'b') +
                                 std::string(page, 'c');
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Open(), 0);
    const Mapping mapping(memory.Map(2 * page, page), 2 * page);
    ASSERT_TRUE(mapping.IsValid());
    EXPECT_EQ(mapping[0], 'b');
    EXPECT_EQ(mapping[2 * page - 1], 'c');
}

TEST_F(SharedMemoryMap, LetsThePlatformChooseAndShares)
{
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Create(100), 0);
    unsigned int calls = 0;
    const Hook map(interposed::mmap,
                   [&](void* hint, std::size_t, int protection, int flags, int fd, off_t) {
                       ++calls;
                       EXPECT_EQ(hint, nullptr);
                       EXPECT_EQ(protection, PROT_READ | PROT_WRITE);
                       EXPECT_EQ(flags, MAP_SHARED);
                       EXPECT_EQ(fd, memory.GetFd());
                       return std::nullopt;
                   });
    const Mapping mapping(memory.Map(), 100);
    EXPECT_TRUE(mapping.IsValid());
    EXPECT_EQ(calls, 1U);
}

TEST_F(SharedMemoryMap, ReachesTheFile)
{
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Create(3), 0);
    const Mapping mapping(memory.Map(), 3);
    ASSERT_TRUE(mapping.IsValid());
    mapping[0] = 'x';
    mapping[2] = 'z';
    EXPECT_EQ(ReadFile(m_Path), std::string("x\0z", 3));
}

TEST_F(SharedMemoryMap, MapsAnewEachTime)
{
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Create(100), 0);
    const Mapping first(memory.Map(), 100);
    const Mapping second(memory.Map(), 100);
    ASSERT_TRUE(first.IsValid());
    ASSERT_TRUE(second.IsValid());
    EXPECT_NE(first.GetAddress(), second.GetAddress());
    first[99] = 'q';
    EXPECT_EQ(second[99], 'q');
}

TEST_F(SharedMemoryMap, PassesTheFailedMappingOn)
{
    SharedMemory memory(m_Path.c_str());
    EXPECT_EQ(memory.Map(), MAP_FAILED);
    EXPECT_EQ(memory.Map(100, 0), MAP_FAILED);
    EXPECT_EQ(GetLastError(), EBADF);

    ASSERT_EQ(memory.Create(0), 0);
    EXPECT_EQ(memory.Map(), MAP_FAILED);
    EXPECT_EQ(GetLastError(), EINVAL);
    EXPECT_EQ(memory.Map(100, 1), MAP_FAILED);
    EXPECT_EQ(GetLastError(), EINVAL);

    const FailingCall mmap("mmap", ENOMEM);
    EXPECT_EQ(memory.Map(100, 0), MAP_FAILED);
    EXPECT_EQ(GetLastError(), ENOMEM);
}

TEST_F(SharedMemoryMap, TakesOffsetsBeyondTwoGiB)
{
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Create(100), 0);
    const Mapping mapping(memory.Map(PageSize(), 0x80000000U), PageSize());
    ASSERT_TRUE(mapping.IsValid());
    char start[32];
    std::snprintf(
        start, sizeof start, "%08lx-",
        static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(mapping.GetAddress())));
    const std::string maps = ReadFile("/proc/self/maps");
    const std::size_t line = maps.find(start);
    ASSERT_NE(line, std::string::npos) << maps;
    EXPECT_NE(maps.substr(line, maps.find('\n', line) - line).find(" rw-s 80000000 "),
              std::string::npos)
        << maps.substr(line, 100);
}

TEST_F(SharedMemoryMap, OutlivesObjectAndFile)
{
    auto memory = std::make_unique<SharedMemory>(m_Path.c_str());
    ASSERT_EQ(memory->Create(100), 0);
    const Mapping mapping(memory->Map(), 100);
    ASSERT_TRUE(mapping.IsValid());
    ASSERT_EQ(memory->Delete(), 0);
    memory.reset();
    mapping[99] = 'x';
    EXPECT_EQ(mapping[99], 'x');
}

/// Two processes that share a region of that many bytes see each other's first and last byte.
class SharedMemoryExchange : public SharedMemoryTest,
                             public testing::WithParamInterface<unsigned int>
{};

INSTANTIATE_TEST_SUITE_P(Sizes, SharedMemoryExchange,
                         testing::Values(1U, 4096U, 4097U, 16 * s_MiB));

TEST_P(SharedMemoryExchange, ShowsFirstAndLastByteToAnotherProcess)
{
    const unsigned int size = GetParam();
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Create(size), 0);
    const Mapping mapping(memory.Map(), size);
    ASSERT_TRUE(mapping.IsValid());
    EXPECT_EQ(mapping[0], 0);
    EXPECT_EQ(mapping[size - 1], 0);

    const Pipe mapped;
    const Pipe written;
    ChildProcess other([&] {
        SharedMemory same(m_Path.c_str());
        if (same.Open() != 0 || same.GetSize() != size) {
            return 1;
        }
        const Mapping view(same.Map(), size);
        if (!view.IsValid()) {
            return 2;
        }
        mapped.Send();
        if (!written.Receive()) {
            return 3;
        }
        if (view[size - 1] != 'l' || view[0] != (size == 1 ? 'l' : 'f')) {
            return 4;
        }
        view[0] = 'F';
        view[size - 1] = 'L';
        return 0;
    });
    ASSERT_TRUE(mapped.Receive());
    mapping[0] = 'f';
    mapping[size - 1] = 'l';
    written.Send();
    ASSERT_EQ(other.WaitForExitStatus(), 0);
    EXPECT_EQ(mapping[size - 1], 'L');
    EXPECT_EQ(mapping[0], size == 1 ? 'L' : 'F');
}

TEST_F(SharedMemoryDelete, RemovesTheFileOnly)
{
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Create(100), 0);
    EXPECT_EQ(memory.Delete(), 0);
    EXPECT_FALSE(std::filesystem::exists(m_Path));
    EXPECT_TRUE(IsOpen(memory.GetFd()));
    EXPECT_EQ(memory.GetSize(), 100U);
}

TEST_F(SharedMemoryDelete, NeedsNoOpenFile)
{
    std::ofstream(m_Path) << "content";
    EXPECT_EQ(SharedMemory(m_Path.c_str()).Delete(), 0);
    EXPECT_FALSE(std::filesystem::exists(m_Path));
}

TEST_F(SharedMemoryDelete, FailsWithoutAFile)
{
    EXPECT_EQ(SharedMemory(m_Path.c_str()).Delete(), -1);
    EXPECT_EQ(GetLastError(), ENOENT);
}

TEST_F(SharedMemoryDelete, FailsWhenTheFileCannotBeRemoved)
{
    SharedMemory memory(m_Path.c_str());
    ASSERT_EQ(memory.Create(100), 0);
    const FailingCall unlink("unlink", EACCES);
    EXPECT_EQ(memory.Delete(), -1);
    EXPECT_EQ(GetLastError(), EACCES);
    EXPECT_TRUE(std::filesystem::exists(m_Path));
}

TEST_F(SharedMemoryDelete, MakesRoomForANewRegion)
{
    SharedMemory old(m_Path.c_str());
    ASSERT_EQ(old.Create(100), 0);
    ASSERT_EQ(old.Delete(), 0);
    SharedMemory fresh(m_Path.c_str());
    EXPECT_EQ(fresh.Create(200), 0);
    EXPECT_EQ(std::filesystem::file_size(m_Path), 200U);
}

TEST_F(SharedMemoryDestructor, ClosesTheFileAndLeavesIt)
{
    int fd = -1;
    {
        SharedMemory memory(m_Path.c_str());
        ASSERT_EQ(memory.Create(100), 0);
        fd = memory.GetFd();
    }
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(std::filesystem::file_size(m_Path), 100U);
}

TEST_F(SharedMemoryDestructor, ClosesTheFileOfAFailedCreation)
{
    const unsigned int descriptors = CountDescriptors();
    {
        const FailingCall write("write", ENOSPC);
        ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(100), -1);
    }
    EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(SharedMemoryDestructor, ClosesTheFileOfAThreadThatIsToBeCancelled)
{
    ASSERT_EQ(SharedMemory(m_Path.c_str()).Create(100), 0);
    const unsigned int descriptors = CountDescriptors();
    EXPECT_TRUE(OutlivesCancellation([&] {
        SharedMemory memory(m_Path.c_str());
        memory.Open();
        CancelMyself();
    }));
    EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(SharedMemoryDestructor, ClosesNothingWithoutAnOpenFile)
{
    const CallCounter closes("close");
    {
        SharedMemory memory(m_Path.c_str());
        memory.Open();
    }
    EXPECT_EQ(closes.GetCallCount(), 0U);
}

} // namespace
