#include <VelaHost_OS/ProcessMutex.h>

#include "support/CancelledThread.h"
#include "support/ChildProcess.h"
#include "support/FileState.h"
#include "support/InstallDirectory.h"
#include "support/Interpose.h"
#include "support/Pipe.h"
#include "support/Sanitizers.h"
#include "support/SemaphoreFile.h"
#include "support/Soak.h"
#include "support/TemporaryDirectory.h"
#include "support/ThrownException.h"
#include "support/interpose/FileStatus.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_OS/SharedMemory.h>
#include <VelaHost_Utility/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <pthread.h>
#include <random>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace velahost_test;
using VelaHost_OS::ProcessMutex;
using VelaHost_Utility::SystemException;

constexpr const char* s_Name = "mutex";

/// The failure of a system call of this module's own throw sites.
Failure MutexFailure(unsigned int line, int errnoValue)
{
    Failure failure = SystemFailure(errnoValue);
    failure.file = "src/unix/OSProcessMutex";
    failure.line = line;
    return failure;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

sigset_t CurrentSignalMask()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
}

/// Signals that a program can block, the real-time ones included.
std::vector<int> BlockableSignals()
{
    std::vector<int> signals;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        // Those between are the C library's own.
        const bool internal = signal > SIGSYS && signal < SIGRTMIN;
        if (signal != SIGKILL && signal != SIGSTOP && !internal) {
            signals.push_back(signal);
        }
    }
    return signals;
}

std::vector<int> BlockedSignals()
{
    const sigset_t mask = CurrentSignalMask();
    std::vector<int> blocked;
    for (const int signal : BlockableSignals()) {
        if (sigismember(&mask, signal) == 1) {
            blocked.push_back(signal);
        }
    }
    return blocked;
}

/// Gives the thread back the signals of its construction.
class SignalMaskGuard
{
public:
    SignalMaskGuard() : m_Mask(CurrentSignalMask()) {}
    SignalMaskGuard(const SignalMaskGuard&) = delete;
    SignalMaskGuard& operator=(const SignalMaskGuard&) = delete;
    ~SignalMaskGuard() { pthread_sigmask(SIG_SETMASK, &m_Mask, nullptr); }

private:
    sigset_t m_Mask;
};

using SemopHook = Hook<int(int, sembuf*, std::size_t)>;

/// While it lives, an operation on a semaphore carries `flags`; nothing is done at all when they
/// are `std::nullopt`.
SemopHook WithFlags(std::function<std::optional<short>(short)> flags)
{
    return {interposed::semop,
            [flags = std::move(flags)](int semaphore, sembuf* operations, std::size_t count) {
                const std::optional<short> changed = flags(operations->sem_flg);
                if (!changed) {
                    return 0;
                }
                sembuf operation = *operations;
                operation.sem_flg = *changed;
                return semop(semaphore, &operation, count);
            }};
}

/// While it lives, `Lock` throws with `EAGAIN` where it would wait.
SemopHook WithoutWaiting()
{
    return WithFlags([](short flags) { return static_cast<short>(flags | IPC_NOWAIT); });
}

using Action = std::function<void(std::string_view name)>;

template <typename Result, typename... Arguments>
Hook<Result(Arguments...)> Before(Interposed<Result(Arguments...)>& function, const Action& action)
{
    return {function, [action, name = function.GetName()](Arguments...) -> std::optional<Result> {
                action(name);
                return std::nullopt;
            }};
}

/// While it lives, `action` runs before every system call that `Init` makes, with the call's name.
class BeforeEveryCall
{
public:
    explicit BeforeEveryCall(const Action& action)
        : m_Umask(Before(interposed::umask, action)),
          m_Stat(Before(interposed::stat, action)),
          m_Open(Before(interposed::open, action)),
          m_Ftok(Before(interposed::ftok, action)),
          m_Semget(Before(interposed::semget, action)),
          m_Semctl(Before(interposed::semctl, action)),
          m_Write(Before(interposed::write, action)),
          m_Read(Before(interposed::read, action)),
          m_Close(Before(interposed::close, action)),
          m_Sleep(Before(interposed::nanosleep, action))
    {}

private:
    Hook<mode_t(mode_t)> m_Umask;
    Hook<int(const char*, FileStatus*)> m_Stat;
    Hook<int(const char*, int, mode_t)> m_Open;
    Hook<key_t(const char*, int)> m_Ftok;
    Hook<int(key_t, int, int)> m_Semget;
    Hook<int(int, int, int, SemaphoreArgument)> m_Semctl;
    Hook<ssize_t(int, const void*, std::size_t)> m_Write;
    Hook<ssize_t(int, void*, std::size_t)> m_Read;
    Hook<int(int)> m_Close;
    Hook<int(const WideTimespec*, WideTimespec*)> m_Sleep;
};

/// How a fresh process fares with a mutex of unknown state.
enum class Outcome { Created = 10, Attached = 11, Waits = 12, CannotLock = 13 };

std::ostream& operator<<(std::ostream& out, Outcome outcome)
{
    switch (outcome) {
    case Outcome::Created:
        return out << "created, and locks";
    case Outcome::Attached:
        return out << "attached, and locks";
    case Outcome::Waits:
        return out << "waits for the mark";
    case Outcome::CannotLock:
        return out << "would wait in Lock";
    }
    return out << "exit status " << static_cast<int>(outcome);
}

/// Asks a fresh process. It counts as waiting when it has looked for the mark three times.
Outcome AskFreshProcess()
{
    ChildProcess child([] {
        int looks = 0;
        const Hook sleep(interposed::nanosleep, [&](const WideTimespec*, WideTimespec*) {
            if (++looks == 3) {
                _exit(static_cast<int>(Outcome::Waits));
            }
            return 0;
        });
        ProcessMutex mutex(s_Name);
        const int created = mutex.Init();
        try {
            const SemopHook noWait = WithoutWaiting();
            mutex.Lock();
            mutex.Unlock();
        } catch (const SystemException&) {
            return static_cast<int>(Outcome::CannotLock);
        }
        return static_cast<int>(created == 0 ? Outcome::Created : Outcome::Attached);
    });
    return static_cast<Outcome>(child.WaitForExitStatus());
}

/// An install directory and a mutex's lock file in it.
struct Place
{
    std::string File() const { return semaphore.GetPath(); }
    bool FileExists() const { return std::filesystem::exists(File()); }
    /// Makes the file as somebody may have left it.
    void LeaveFile(const std::string& content) const { std::ofstream(File()) << content; }

    InstallDirectory install;
    SemaphoreFile semaphore{install.File("temp/" + std::string(s_Name))};
};

class ProcessMutexTest : public testing::Test
{
protected:
    Place m_Place;
    SignalMaskGuard m_Signals;
    CreationMask m_Mask{022};
};

using ProcessMutexConstructor = ProcessMutexTest;
using ProcessMutexInit = ProcessMutexTest;
using ProcessMutexLock = ProcessMutexTest;
using ProcessMutexUnlock = ProcessMutexTest;
using ProcessMutexDelete = ProcessMutexTest;
using ProcessMutexDestructor = ProcessMutexTest;
using ProcessMutexSoak = ProcessMutexTest;

TEST_F(ProcessMutexConstructor, PutsTheFileIntoTheInstallDirectorysTempFolder)
{
    EXPECT_EQ(ProcessMutex("some.name").GetPath(), m_Place.install.GetPath() + "/temp/some.name");
}

TEST_F(ProcessMutexConstructor, TakesTheVariableAsItStands)
{
    const InstallVariable slash("relative//dir/");
    EXPECT_EQ(ProcessMutex("n").GetPath(), "relative//dir//temp/n");
    const InstallVariable empty("");
    EXPECT_EQ(ProcessMutex("n").GetPath(), "/temp/n");
}

TEST_F(ProcessMutexConstructor, UsesTmpWithoutTheVariable)
{
    const InstallVariable variable(std::nullopt);
    EXPECT_EQ(ProcessMutex("some.name").GetPath(), "/tmp/some.name");
}

TEST_F(ProcessMutexConstructor, KeepsThePathOfItsTime)
{
    const ProcessMutex mutex(s_Name);
    const InstallVariable variable("elsewhere");
    EXPECT_EQ(mutex.GetPath(), m_Place.File());
}

TEST_F(ProcessMutexConstructor, TouchesNothing)
{
    std::vector<std::string> calls;
    {
        const BeforeEveryCall hooks([&](std::string_view name) { calls.emplace_back(name); });
        const ProcessMutex mutex(s_Name);
        EXPECT_TRUE(mutex.IsCreator());
    }
    EXPECT_THAT(calls, testing::IsEmpty());
    EXPECT_FALSE(m_Place.FileExists());
    EXPECT_TRUE(BlockedSignals().empty());
}

TEST_F(ProcessMutexConstructor, LaysTheFieldsOutInOrder)
{
    static_assert(!std::is_polymorphic_v<ProcessMutex>);
    alignas(ProcessMutex) unsigned char bytes[sizeof(ProcessMutex)];
    std::memset(bytes, 0xA5, sizeof bytes);
    ProcessMutex* mutex = new (bytes) ProcessMutex(s_Name);
    const auto word = [&](std::size_t offset) {
        int value = 0;
        std::memcpy(&value, bytes + offset, sizeof value);
        return value;
    };
    const auto pathOffset =
        static_cast<std::size_t>(reinterpret_cast<const unsigned char*>(&mutex->GetPath()) - bytes);
    const std::size_t createdOffset = pathOffset + sizeof(std::string);
    const std::size_t signalsOffset = createdOffset + sizeof(void*) * 2;
    EXPECT_EQ(word(0), -1);
    EXPECT_EQ(pathOffset, alignof(std::string));
    EXPECT_EQ(bytes[createdOffset], 1);
    EXPECT_EQ(word(createdOffset + sizeof(int)), -1);
    EXPECT_EQ(sizeof(ProcessMutex), createdOffset + 2 * sizeof(int) + 2 * sizeof(sigset_t));
    if (sizeof(void*) == 4) {
        sigset_t blocked;
        std::memcpy(&blocked, bytes + signalsOffset, sizeof blocked);
        for (const int signal : BlockableSignals()) {
            EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
        }
    }
    mutex->~ProcessMutex();
}

TEST_F(ProcessMutexInit, CreatesTheMutexFreeAndMarksItReady)
{
    ProcessMutex mutex(s_Name);
    EXPECT_EQ(mutex.Init(), 0);
    EXPECT_TRUE(mutex.IsCreator());
    EXPECT_EQ(ReadFile(m_Place.File()), "\x01");
    EXPECT_EQ(m_Place.semaphore.GetElementCount(), 1);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
}

TEST_F(ProcessMutexInit, AttachesToAnExistingMutex)
{
    ProcessMutex creator(s_Name);
    ASSERT_EQ(creator.Init(), 0);
    ChildProcess other([] {
        ProcessMutex mutex(s_Name);
        return mutex.Init() == -1 && !mutex.IsCreator() ? 0 : 1;
    });
    EXPECT_EQ(other.WaitForExitStatus(), 0);
    EXPECT_EQ(ReadFile(m_Place.File()), "\x01");
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
}

TEST_F(ProcessMutexInit, AttachesToAHeldMutex)
{
    ProcessMutex creator(s_Name);
    ASSERT_EQ(creator.Init(), 0);
    ASSERT_EQ(creator.Lock(), 0);
    ProcessMutex other(s_Name);
    EXPECT_EQ(other.Init(), -1);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 0);
    creator.Unlock();
}

TEST_F(ProcessMutexInit, AttachesAtOnceToWhatAnEarlierProcessLeft)
{
    ChildProcess earlier([] { return ProcessMutex(s_Name).Init(); });
    ASSERT_EQ(earlier.WaitForExitStatus(), 0);
    const CallCounter sleeps("nanosleep");
    ProcessMutex mutex(s_Name);
    EXPECT_EQ(mutex.Init(), -1);
    EXPECT_EQ(sleeps.GetCallCount(), 0U);
    const SemopHook noWait = WithoutWaiting();
    EXPECT_EQ(mutex.Lock(), 0);
    EXPECT_EQ(mutex.Unlock(), 0);
}

TEST_F(ProcessMutexInit, KeepsDistinctNamesApart)
{
    const SemaphoreFile otherFile(m_Place.install.File("temp/other"));
    ProcessMutex mutex(s_Name);
    ProcessMutex other("other");
    EXPECT_EQ(mutex.Init(), 0);
    EXPECT_EQ(other.Init(), 0);
    EXPECT_NE(m_Place.semaphore.FindSemaphore(), otherFile.FindSemaphore());
    const SemopHook noWait = WithoutWaiting();
    mutex.Lock();
    EXPECT_EQ(other.Lock(), 0);
    other.Unlock();
    mutex.Unlock();
}

TEST_F(ProcessMutexInit, WorksInTmpWithoutTheVariable)
{
    // A name that leads into a directory of the test's own: nothing else in /tmp is touched.
    const InstallVariable variable(std::nullopt);
    const TemporaryDirectory directory;
    ASSERT_THAT(directory.GetPath(), testing::StartsWith("/tmp/"));
    const SemaphoreFile semaphore(directory.File(s_Name));
    ProcessMutex mutex(directory.File(s_Name).substr(std::strlen("/tmp/")).c_str());
    EXPECT_EQ(mutex.GetPath(), directory.File(s_Name));
    EXPECT_EQ(mutex.Init(), 0);
    EXPECT_EQ(semaphore.GetValue(), 1);
}

class ProcessMutexPermissions : public ProcessMutexTest,
                                public testing::WithParamInterface<PermissionRow>
{};

INSTANTIATE_TEST_SUITE_P(Rows, ProcessMutexPermissions, testing::ValuesIn(s_PermissionRows));

TEST_P(ProcessMutexPermissions, AreTheInstallDirectorysWhateverTheMask)
{
    const CreationMask mask(077);
    m_Place.install.SetMode(GetParam().directory);
    ASSERT_EQ(ProcessMutex(s_Name).Init(), 0);
    EXPECT_EQ(GetMode(m_Place.File()), GetParam().file);
    EXPECT_EQ(m_Place.semaphore.GetMode(), static_cast<int>(GetParam().file));
    EXPECT_EQ(GetCreationMask(), 077U);
}

TEST_F(ProcessMutexInit, GivesEverybodyAccessWhenTheInstallDirectoryCannotBeExamined)
{
    m_Place.install.SetMode(0700);
    const FailingCall stat("stat", EACCES);
    ASSERT_EQ(ProcessMutex(s_Name).Init(), 0);
    EXPECT_TRUE(stat.WasHit());
    EXPECT_EQ(GetMode(m_Place.File()), 0666U);
    EXPECT_EQ(m_Place.semaphore.GetMode(), 0666);
}

/// What "/usr/vela" is like, and what that makes of the lock file.
struct DefaultDirectoryRow
{
    std::optional<mode_t> directory;
    mode_t file;
};

void PrintTo(const DefaultDirectoryRow& row, std::ostream* out)
{
    *out << (row.directory ? "exists" : "is missing");
}

class ProcessMutexDefaultDirectory : public ProcessMutexTest,
                                     public testing::WithParamInterface<DefaultDirectoryRow>
{};

INSTANTIATE_TEST_SUITE_P(Rows, ProcessMutexDefaultDirectory,
                         testing::Values(DefaultDirectoryRow{0750, 0640},
                                         DefaultDirectoryRow{std::nullopt, 0666}),
                         [](const auto& row) {
                             return row.param.directory ? "Exists" : "IsMissing";
                         });

TEST_P(ProcessMutexDefaultDirectory, GivesThePermissionsWithoutTheVariable)
{
    const InstallVariable variable(std::nullopt);
    const TemporaryDirectory directory;
    const SemaphoreFile semaphore(directory.File(s_Name));
    ProcessMutex mutex(directory.File(s_Name).substr(std::strlen("/tmp/")).c_str());
    std::vector<std::string> examined;
    {
        const Hook stat(interposed::stat, [&](const char* path, FileStatus* status) {
            examined.emplace_back(path);
            if (!GetParam().directory) {
                errno = ENOENT;
                return -1;
            }
            SetMode(status, S_IFDIR | *GetParam().directory);
            return 0;
        });
        ASSERT_EQ(mutex.Init(), 0);
    }
    EXPECT_THAT(examined, testing::ElementsAre("/usr/vela"));
    EXPECT_EQ(GetMode(semaphore.GetPath()), GetParam().file);
    EXPECT_EQ(semaphore.GetMode(), static_cast<int>(GetParam().file));
}

TEST_F(ProcessMutexInit, HasNoCreationMaskWhileItCreates)
{
    mode_t mask = 0777;
    const CreationMask strict(0177);
    {
        const Hook open(interposed::open, [&](const char*, int, mode_t) {
            mask = GetCreationMask();
            return std::nullopt;
        });
        ASSERT_EQ(ProcessMutex(s_Name).Init(), 0);
    }
    EXPECT_EQ(mask, 0U);
    EXPECT_EQ(GetCreationMask(), 0177U);
    ASSERT_EQ(ProcessMutex(s_Name).Init(), -1);
    EXPECT_EQ(GetCreationMask(), 0177U);
}

TEST_F(ProcessMutexInit, CreatesTheFileExclusivelyAndAttachesWithoutWriting)
{
    std::vector<int> flags;
    const Hook open(interposed::open, [&](const char* path, int openFlags, mode_t) {
        EXPECT_EQ(path, m_Place.File());
        flags.push_back(openFlags);
        return std::nullopt;
    });
    constexpr int create = O_WRONLY | O_CREAT | O_EXCL;
    ProcessMutex creator(s_Name);
    ASSERT_EQ(creator.Init(), 0);
    EXPECT_THAT(flags, testing::ElementsAre(create));
    ProcessMutex other(s_Name);
    ASSERT_EQ(other.Init(), -1);
    EXPECT_THAT(flags, testing::ElementsAre(create, create, O_RDONLY));
}

/// A system call of `Init`, when it is made to fail, and the line that its failure carries.
struct InitFailure
{
    const char* name;
    const char* function;
    unsigned int call;
    bool attaching;
    unsigned int line;
    int errnoValue;
};

void PrintTo(const InitFailure& failure, std::ostream* out)
{
    *out << failure.name;
}

class ProcessMutexInitFailure : public ProcessMutexTest,
                                public testing::WithParamInterface<InitFailure>
{};

INSTANTIATE_TEST_SUITE_P(
    Rows, ProcessMutexInitFailure,
    testing::Values(InitFailure{"Create", "open", 1, false, 132, EACCES},
                    InitFailure{"CreateOutOfDescriptors", "open", 1, false, 132, EMFILE},
                    InitFailure{"CreateOnAFullFileSystem", "open", 1, false, 132, ENOSPC},
                    InitFailure{"CreateInterrupted", "open", 1, false, 132, EINTR},
                    InitFailure{"Key", "ftok", 1, false, 141, EACCES},
                    InitFailure{"KeyOfAnAttacher", "ftok", 1, true, 141, ENOENT},
                    InitFailure{"Semaphore", "semget", 1, false, 146, ENOSPC},
                    InitFailure{"SemaphoreOfAnAttacher", "semget", 1, true, 146, EACCES},
                    InitFailure{"InitialValue", "semctl", 1, false, 155, EPERM},
                    InitFailure{"Reopen", "open", 2, true, 178, EMFILE},
                    InitFailure{"ReopenAfterRemoval", "open", 2, true, 178, ENOENT}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(ProcessMutexInitFailure, IsThrownFromItsLineAndRestoresTheCreationMask)
{
    if (GetParam().attaching) {
        ASSERT_EQ(ProcessMutex(s_Name).Init(), 0);
    }
    const unsigned int descriptors = CountDescriptors();
    {
        ProcessMutex mutex(s_Name);
        const FailingCall failing(GetParam().function, GetParam().errnoValue, GetParam().call);
        EXPECT_TRUE(Throws<SystemException>([&] { mutex.Init(); },
                                            MutexFailure(GetParam().line, GetParam().errnoValue)));
        EXPECT_TRUE(failing.WasHit());
    }
    EXPECT_EQ(GetCreationMask(), 022U);
    EXPECT_EQ(CountDescriptors(), descriptors);
    EXPECT_TRUE(BlockedSignals().empty());
}

TEST_F(ProcessMutexInit, NeedsTheTempFolder)
{
    std::filesystem::remove(m_Place.install.File("temp"));
    EXPECT_TRUE(
        Throws<SystemException>([] { ProcessMutex(s_Name).Init(); }, MutexFailure(132, ENOENT)));
    EXPECT_FALSE(std::filesystem::exists(m_Place.install.File("temp")));
    EXPECT_EQ(GetCreationMask(), 022U);
}

TEST_F(ProcessMutexInit, StaysCreatorWhenTheFileCannotBeMade)
{
    ProcessMutex mutex(s_Name);
    {
        const FailingCall open("open", EACCES);
        EXPECT_THROW(mutex.Init(), SystemException);
    }
    EXPECT_TRUE(mutex.IsCreator());
    EXPECT_EQ(mutex.Init(), 0);
}

TEST_F(ProcessMutexInit, OfACreatorThatFailedLeavesTheOthersWaiting)
{
    for (const char* function : {"ftok", "semget", "semctl"}) {
        const Place place;
        ProcessMutex creator(s_Name);
        {
            const FailingCall failing(function, ENOSPC);
            EXPECT_THROW(creator.Init(), SystemException);
        }
        EXPECT_TRUE(std::filesystem::is_empty(place.File()));
        EXPECT_EQ(AskFreshProcess(), Outcome::Waits) << function;
    }
}

TEST_F(ProcessMutexInit, DoesNotTestWhetherTheMarkWasWritten)
{
    ProcessMutex creator(s_Name);
    {
        const FailingCall write("write", ENOSPC);
        EXPECT_EQ(creator.Init(), 0);
        EXPECT_TRUE(write.WasHit());
    }
    EXPECT_EQ(AskFreshProcess(), Outcome::Waits);
    EXPECT_EQ(creator.Lock(), 0);
    EXPECT_EQ(creator.Unlock(), 0);
}

TEST_F(ProcessMutexInit, LooksForTheMarkEveryHalfSecond)
{
    m_Place.LeaveFile("");
    int looks = 0;
    const CallCounter reads("read");
    const Hook sleep(interposed::nanosleep, [&](const WideTimespec* time, WideTimespec*) {
        EXPECT_EQ(time->tv_sec, 0);
        EXPECT_EQ(time->tv_nsec, 500'000'000);
        EXPECT_EQ(reads.GetCallCount(), static_cast<unsigned int>(++looks));
        if (looks == 5) {
            m_Place.LeaveFile("\x01");
        }
        return 0;
    });
    ProcessMutex mutex(s_Name);
    EXPECT_EQ(mutex.Init(), -1);
    EXPECT_EQ(looks, 5);
}

TEST_F(ProcessMutexInit, WaitsInTheKernelBetweenLooks)
{
    // Once for real: two looks are half a second apart.
    m_Place.LeaveFile("");
    int reads = 0;
    const Hook read(interposed::read, [&](int, void*, std::size_t size) {
        EXPECT_EQ(size, 1U);
        return std::optional<ssize_t>(++reads == 1 ? 0 : 1);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ProcessMutex(s_Name).Init(), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(reads, 2);
}

TEST_F(ProcessMutexInit, TakesAFailedReadForAMissingMark)
{
    m_Place.LeaveFile("\x01");
    int sleeps = 0;
    const Hook sleep(interposed::nanosleep, [&](const WideTimespec*, WideTimespec*) {
        ++sleeps;
        return 0;
    });
    const FailingCall read("read", EIO, 1, 2);
    EXPECT_EQ(ProcessMutex(s_Name).Init(), -1);
    EXPECT_EQ(sleeps, 2);
}

TEST_F(ProcessMutexInit, LooksAgainAfterAnInterruptedSleep)
{
    m_Place.LeaveFile("");
    const Hook sleep(interposed::nanosleep, [&](const WideTimespec*, WideTimespec*) {
        m_Place.LeaveFile("\x01");
        errno = EINTR;
        return -1;
    });
    EXPECT_EQ(ProcessMutex(s_Name).Init(), -1);
}

TEST_F(ProcessMutexInit, TakesAnyByteForTheMark)
{
    m_Place.LeaveFile("7");
    const CallCounter sleeps("nanosleep");
    EXPECT_EQ(ProcessMutex(s_Name).Init(), -1);
    EXPECT_EQ(sleeps.GetCallCount(), 0U);
}

TEST_F(ProcessMutexInit, LeavesTheSemaphoreOfALeftoverFileAtZero)
{
    // As after a restart of the machine: the file with its mark survived, the semaphore did not.
    m_Place.LeaveFile("\x01");
    EXPECT_EQ(AskFreshProcess(), Outcome::CannotLock);
}

TEST_F(ProcessMutexInit, KeepsOneDescriptorAsCreatorAndNoneOtherwise)
{
    const unsigned int descriptors = CountDescriptors();
    ProcessMutex creator(s_Name);
    creator.Init();
    EXPECT_EQ(CountDescriptors(), descriptors + 1);
    ProcessMutex other(s_Name);
    other.Init();
    EXPECT_EQ(CountDescriptors(), descriptors + 1);
}

TEST_F(ProcessMutexInit, CalledAgainAttachesToItsOwnMutex)
{
    const unsigned int descriptors = CountDescriptors();
    ProcessMutex mutex(s_Name);
    EXPECT_EQ(mutex.Init(), 0);
    EXPECT_EQ(mutex.Init(), -1);
    EXPECT_FALSE(mutex.IsCreator());
    EXPECT_EQ(CountDescriptors(), descriptors);
    EXPECT_EQ(mutex.Delete(), 0);
    EXPECT_EQ(mutex.Init(), 0);
    EXPECT_TRUE(mutex.IsCreator());
}

void* InitOnAThread(void* mutex)
{
    static_cast<ProcessMutex*>(mutex)->Init();
    return nullptr;
}

TEST_F(ProcessMutexInit, MayBeCancelledWhileItWaits)
{
    m_Place.LeaveFile("");
    const Pipe waiting;
    const unsigned int descriptors = CountDescriptors();
    const Hook sleep(interposed::nanosleep,
                     [&](const WideTimespec*, WideTimespec*) -> std::optional<int> {
                         waiting.Send();
                         return std::nullopt;
                     });
    ProcessMutex mutex(s_Name);
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, InitOnAThread, &mutex), 0);
    ASSERT_TRUE(waiting.Receive());
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(CountDescriptors(), descriptors);
    EXPECT_EQ(GetCreationMask(), 022U);
}

TEST_F(ProcessMutexInit, ClosesTheFileOfAWaiterThatIsToBeCancelled)
{
    ASSERT_EQ(ProcessMutex(s_Name).Init(), 0);
    const unsigned int descriptors = CountDescriptors();
    int result = 0;
    EXPECT_TRUE(OutlivesCancellation([&] {
        ProcessMutex mutex(s_Name);
        const Hook read(interposed::read, [](int, void* mark, std::size_t) {
            CancelMyself();
            *static_cast<char*>(mark) = 1;
            return ssize_t{1};
        });
        result = mutex.Init();
    }));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(ProcessMutexInit, OfACreatorIsNotCancelledHalfWay)
{
    for (const std::string_view step :
         {"umask", "stat", "open", "ftok", "semget", "semctl", "write"}) {
        SCOPED_TRACE(step);
        const Place place;
        int result = -1;
        EXPECT_TRUE(OutlivesCancellation([&] {
            ProcessMutex mutex(s_Name);
            const BeforeEveryCall hooks([&](std::string_view name) {
                if (name == step) {
                    CancelMyself();
                }
            });
            result = mutex.Init();
        }));
        EXPECT_EQ(result, 0);
        EXPECT_EQ(GetCreationMask(), 022U);
        EXPECT_EQ(AskFreshProcess(), Outcome::Attached);
    }
}

TEST_F(ProcessMutexInit, OpensTheCreationMaskOneThreadAtATime)
{
    const CreationMask mask(077);
    const Pipe opening;
    const Pipe release;
    const Pipe second;
    std::atomic<bool> isFirst{true};
    const Hook open(interposed::open, [&](const char*, int, mode_t) -> std::optional<int> {
        if (isFirst.exchange(false)) {
            opening.Send();
            EXPECT_TRUE(release.Receive());
        }
        return std::nullopt;
    });
    const Hook sleep(interposed::nanosleep,
                     [&, looks = 0](const WideTimespec*, WideTimespec*) mutable {
                         if (++looks == 3) {
                             second.Send('w');
                         }
                         return std::optional<int>();
                     });
    const std::string shared = m_Place.install.File("shared");
    std::thread creator([] { ProcessMutex(s_Name).Init(); });
    EXPECT_TRUE(opening.Receive());
    std::thread other([&] {
        VelaHost_OS::SharedMemory(shared.c_str()).Create(1);
        second.Send('d');
    });
    EXPECT_EQ(second.Receive(), 'w') << "the other thread did not wait";
    EXPECT_FALSE(std::filesystem::exists(shared));
    release.Send();
    creator.join();
    other.join();
    EXPECT_EQ(GetCreationMask(), 077U);
    EXPECT_EQ(GetMode(m_Place.File()), 0644);
    EXPECT_EQ(GetMode(shared), 0644);
}

/// The creator is held before one of its steps; the other must wait until it has taken the last.
class ProcessMutexCreation : public ProcessMutexTest,
                             public testing::WithParamInterface<const char*>
{};

INSTANTIATE_TEST_SUITE_P(HeldBefore, ProcessMutexCreation,
                         testing::Values("ftok", "semget", "semctl", "write"),
                         [](const auto& step) { return std::string(step.param); });

TEST_P(ProcessMutexCreation, IsWaitedForToItsEnd)
{
    const Pipe held;
    const Pipe release;
    ChildProcess creator([&] {
        const BeforeEveryCall hooks([&](std::string_view name) {
            if (name == GetParam()) {
                held.Send();
                if (!release.Receive()) {
                    _exit(2);
                }
            }
        });
        return ProcessMutex(s_Name).Init() == 0 ? 0 : 1;
    });
    ASSERT_TRUE(held.Receive());

    const Pipe looked;
    const Pipe lookAgain;
    ChildProcess other([&] {
        const Hook sleep(interposed::nanosleep, [&](const WideTimespec*, WideTimespec*) {
            looked.Send();
            if (!lookAgain.Receive()) {
                _exit(2);
            }
            return 0;
        });
        const int result = ProcessMutex(s_Name).Init();
        return result == -1 && m_Place.semaphore.GetValue() == 1 ? 0 : 1;
    });
    for (int look = 0; look < 3; ++look) {
        ASSERT_TRUE(looked.Receive());
        lookAgain.Send();
    }
    ASSERT_TRUE(looked.Receive());
    release.Send();
    EXPECT_EQ(creator.WaitForExitStatus(), 0);
    lookAgain.Send();
    EXPECT_EQ(other.WaitForExitStatus(), 0);
}

TEST_F(ProcessMutexInit, HasExactlyOneCreatorAmongMany)
{
    constexpr int processes = 8;
    for (int round = 0; round < 10; ++round) {
        const Place place;
        const Pipe ready;
        const Pipe start;
        std::vector<std::unique_ptr<ChildProcess>> children;
        for (int i = 0; i < processes; ++i) {
            children.push_back(std::make_unique<ChildProcess>([&] {
                // Shorter naps; the wait itself stays.
                const Hook sleep(interposed::nanosleep,
                                 [](const WideTimespec*, WideTimespec*) { return usleep(1000); });
                ProcessMutex mutex(s_Name);
                ready.Send();
                start.Receive();
                const int created = mutex.Init();
                mutex.Lock();
                mutex.Unlock();
                return created == 0 ? 0 : 1;
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
    }
}

/// Starts a process that is killed just before the system call number `step` of its `Init`. The
/// name of that call; nothing when `Init` makes fewer.
std::optional<std::string> InitKilledBeforeCall(int step)
{
    const Pipe names;
    ChildProcess child([&] {
        int call = 0;
        const BeforeEveryCall hooks([&](std::string_view name) {
            if (++call == step) {
                std::for_each(name.begin(), name.end(), [&](char c) { names.Send(c); });
                kill(getpid(), SIGKILL);
            }
        });
        ProcessMutex(s_Name).Init();
        // The destructor's calls don't count.
        return 0;
    });
    const int status = child.WaitForExitStatus();
    std::string name;
    while (const std::optional<char> c = names.Receive(std::chrono::milliseconds(0))) {
        name += *c;
    }
    if (status == -SIGKILL) {
        return name;
    }
    EXPECT_EQ(status, 0);
    return std::nullopt;
}

TEST_F(ProcessMutexInit, OfAKilledCreatorLeavesAWaitOrAUsableMutex)
{
    std::vector<std::pair<std::string, Outcome>> outcomes;
    for (int step = 1;; ++step) {
        const Place place;
        const std::optional<std::string> call = InitKilledBeforeCall(step);
        if (!call) {
            EXPECT_EQ(AskFreshProcess(), Outcome::Attached);
            break;
        }
        outcomes.emplace_back(*call, AskFreshProcess());
    }
    using testing::Pair;
    EXPECT_THAT(outcomes, testing::ElementsAre(
                              Pair("umask", Outcome::Created), Pair("stat", Outcome::Created),
                              Pair("open", Outcome::Created), Pair("umask", Outcome::Waits),
                              Pair("ftok", Outcome::Waits), Pair("semget", Outcome::Waits),
                              Pair("semctl", Outcome::Waits), Pair("write", Outcome::Waits),
                              // The end of the object, after `Init`.
                              Pair("close", Outcome::Attached)));
}

TEST_F(ProcessMutexInit, OfAKilledAttacherLeavesAUsableMutex)
{
    ASSERT_EQ(ProcessMutex(s_Name).Init(), 0);
    std::vector<std::string> calls;
    for (int step = 1;; ++step) {
        const std::optional<std::string> call = InitKilledBeforeCall(step);
        EXPECT_EQ(AskFreshProcess(), Outcome::Attached);
        if (!call) {
            break;
        }
        calls.push_back(*call);
    }
    EXPECT_THAT(calls, testing::ElementsAre("umask", "stat", "open", "umask", "ftok", "semget",
                                            "open", "read", "close"));
}

TEST_F(ProcessMutexLock, TakesAndUnlockGivesBackWithUndo)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    std::vector<std::string> operations;
    const Hook semop(interposed::semop, [&](int semaphore, sembuf* operation, std::size_t count) {
        EXPECT_EQ(semaphore, m_Place.semaphore.FindSemaphore());
        EXPECT_EQ(count, 1U);
        EXPECT_EQ(operation->sem_num, 0);
        EXPECT_EQ(operation->sem_flg, SEM_UNDO);
        EXPECT_EQ(BlockedSignals(), BlockableSignals());
        operations.push_back(std::to_string(operation->sem_op));
        return std::nullopt;
    });
    EXPECT_EQ(mutex.Lock(), 0);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 0);
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
    EXPECT_THAT(operations, testing::ElementsAre("-1", "1"));
}

TEST_F(ProcessMutexLock, WaitsUntilTheHolderUnlocks)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    mutex.Lock();
    const std::string marker = m_Place.install.File("unlocked");
    ChildProcess waiter([&] {
        ProcessMutex same(s_Name);
        same.Init();
        same.Lock();
        const bool early = !std::filesystem::exists(marker);
        same.Unlock();
        return early ? 1 : 0;
    });
    ASSERT_TRUE(m_Place.semaphore.WaitForWaiters(1));
    std::ofstream{marker};
    mutex.Unlock();
    EXPECT_EQ(waiter.WaitForExitStatus(), 0);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
}

TEST_F(ProcessMutexLock, IsNotRecursive)
{
    ProcessMutex(s_Name).Init();
    ChildProcess child([] {
        ProcessMutex mutex(s_Name);
        mutex.Init();
        mutex.Lock();
        mutex.Lock();
        return 0;
    });
    EXPECT_TRUE(m_Place.semaphore.WaitForWaiters(1));
    child.Kill(SIGKILL);
    EXPECT_EQ(child.WaitForExitStatus(), -SIGKILL);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
}

TEST_F(ProcessMutexLock, GoesToTheNextWhenItsHolderIsKilled)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    const Pipe inside;
    ChildProcess holder([&] {
        ProcessMutex same(s_Name);
        same.Init();
        same.Lock();
        inside.Send();
        for (;;) {
            pause();
        }
        return 0;
    });
    ASSERT_TRUE(inside.Receive());
    ChildProcess waiter([&] {
        ProcessMutex same(s_Name);
        same.Init();
        same.Lock();
        same.Unlock();
        return 0;
    });
    ASSERT_TRUE(m_Place.semaphore.WaitForWaiters(1));
    EXPECT_EQ(m_Place.semaphore.GetValue(), 0);
    holder.Kill(SIGKILL);
    EXPECT_EQ(holder.WaitForExitStatus(), -SIGKILL);
    EXPECT_EQ(waiter.WaitForExitStatus(), 0);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
}

TEST_F(ProcessMutexLock, IsGivenBackByAHolderThatExits)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    ChildProcess holder([] {
        ProcessMutex same(s_Name);
        same.Init();
        return same.Lock();
    });
    ASSERT_EQ(holder.WaitForExitStatus(), 0);
    const SemopHook noWait = WithoutWaiting();
    EXPECT_EQ(mutex.Lock(), 0);
    mutex.Unlock();
}

TEST_F(ProcessMutexLock, LeavesNothingToUndoAfterUnlock)
{
    ProcessMutex(s_Name).Init();
    ChildProcess user([] {
        ProcessMutex mutex(s_Name);
        mutex.Init();
        for (int i = 0; i < 1000; ++i) {
            mutex.Lock();
            mutex.Unlock();
        }
        return 0;
    });
    ASSERT_EQ(user.WaitForExitStatus(), 0);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
}

volatile std::sig_atomic_t s_Delivered = 0;

void CountSignal(int /*signal*/)
{
    s_Delivered = s_Delivered + 1;
}

TEST_F(ProcessMutexLock, HoldsEverySignalBackUntilUnlock)
{
    if (IsOnValgrind()) {
        GTEST_SKIP() << "valgrind itself takes a fault that another process reports";
    }
    std::vector<int> signals = BlockableSignals();
    // A pending SIGCONT and a pending request to stop discard each other.
    std::erase_if(signals, [](int s) { return s == SIGTSTP || s == SIGTTIN || s == SIGTTOU; });
    const Pipe inside;
    const Pipe sent;
    ChildProcess holder([&] {
        for (const int signal : signals) {
            std::signal(signal, CountSignal);
        }
        ProcessMutex mutex(s_Name);
        mutex.Init();
        mutex.Lock();
        inside.Send();
        if (!sent.Receive()) {
            return 1;
        }
        sigset_t pending;
        sigpending(&pending);
        for (const int signal : signals) {
            if (sigismember(&pending, signal) != 1) {
                return 2;
            }
        }
        if (s_Delivered != 0) {
            return 3;
        }
        mutex.Unlock();
        // A sanitizer may pass a signal on only at the next call that it watches.
        usleep(0);
        return s_Delivered == static_cast<int>(signals.size()) ? 0 : 4;
    });
    ASSERT_TRUE(inside.Receive());
    for (const int signal : signals) {
        holder.Kill(signal);
    }
    sent.Send();
    EXPECT_EQ(holder.WaitForExitStatus(), 0);
}

TEST_F(ProcessMutexLock, BlocksSignalsBeforeItWaits)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    mutex.Lock();
    ChildProcess waiter([&] {
        std::signal(SIGUSR2, CountSignal);
        ProcessMutex same(s_Name);
        same.Init();
        same.Lock();
        const bool early = s_Delivered != 0;
        same.Unlock();
        return early ? 1 : 0;
    });
    ASSERT_TRUE(m_Place.semaphore.WaitForWaiters(1));
    waiter.Kill(SIGUSR2);
    mutex.Unlock();
    EXPECT_EQ(waiter.WaitForExitStatus(), 0);
}

TEST_F(ProcessMutexUnlock, RestoresTheMaskThatLockMet)
{
    sigset_t before;
    sigemptyset(&before);
    sigaddset(&before, SIGUSR2);
    sigaddset(&before, SIGRTMAX);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ProcessMutex mutex(s_Name);
    mutex.Init();
    mutex.Lock();
    EXPECT_EQ(BlockedSignals(), BlockableSignals());
    mutex.Unlock();
    EXPECT_THAT(BlockedSignals(), testing::ElementsAre(SIGUSR2, SIGRTMAX));
}

TEST_F(ProcessMutexLock, ChangesTheSignalsOfTheCallingThreadOnly)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    std::thread([&] {
        mutex.Lock();
        EXPECT_EQ(BlockedSignals(), BlockableSignals());
        mutex.Unlock();
        EXPECT_TRUE(BlockedSignals().empty());
        mutex.Lock();
    }).join();
    EXPECT_TRUE(BlockedSignals().empty());
}

TEST_F(ProcessMutexLock, ExcludesThreadsWithObjectsOfTheirOwn)
{
    ProcessMutex(s_Name).Init();
    std::atomic<int> inside{0};
    std::atomic<int> violations{0};
    const auto use = [&] {
        ProcessMutex mutex(s_Name);
        mutex.Init();
        for (int i = 0; i < 500; ++i) {
            mutex.Lock();
            violations += inside++ != 0;
            sched_yield();
            --inside;
            mutex.Unlock();
        }
        EXPECT_TRUE(BlockedSignals().empty());
    };
    std::thread first(use);
    std::thread second(use);
    first.join();
    second.join();
    EXPECT_EQ(violations, 0);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
}

TEST_F(ProcessMutexLock, BeforeInitFailsAndTouchesNoSemaphore)
{
    // Semaphore 0 may exist and belong to a stranger.
    int used = 0;
    const Hook semop(interposed::semop, [&](int semaphore, sembuf*, std::size_t) {
        used = semaphore;
        return std::nullopt;
    });
    ProcessMutex mutex(s_Name);
    EXPECT_TRUE(Throws<SystemException>([&] { mutex.Lock(); }, SystemFailure(EINVAL)));
    EXPECT_EQ(used, -1);
}

TEST_F(ProcessMutexLock, LeavesTheSignalsBlockedWhenItFails)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    {
        const FailingCall semop("semop", ENOSPC);
        EXPECT_TRUE(Throws<SystemException>([&] { mutex.Lock(); }, SystemFailure(ENOSPC)));
    }
    EXPECT_EQ(BlockedSignals(), BlockableSignals());
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
}

TEST_F(ProcessMutexUnlock, LeavesTheSignalsBlockedWhenItFails)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    mutex.Lock();
    {
        const FailingCall semop("semop", ERANGE);
        EXPECT_TRUE(Throws<SystemException>([&] { mutex.Unlock(); }, SystemFailure(ERANGE)));
    }
    EXPECT_EQ(BlockedSignals(), BlockableSignals());
    EXPECT_EQ(m_Place.semaphore.GetValue(), 0);
    // The mask is still there for an Unlock that succeeds.
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_TRUE(BlockedSignals().empty());
}

TEST_F(ProcessMutexUnlock, WithoutLockSetsNoStrayMask)
{
    alignas(ProcessMutex) unsigned char bytes[sizeof(ProcessMutex)];
    std::memset(bytes, 0xFF, sizeof bytes);
    ProcessMutex* mutex = new (bytes) ProcessMutex(s_Name);
    mutex->Init();
    EXPECT_EQ(mutex->Unlock(), 0);
    EXPECT_TRUE(BlockedSignals().empty());
    mutex->~ProcessMutex();
}

/// What a process that waits in `Lock` sees when `action` happens meanwhile: the `errno` of the
/// exception, 0 when it got the mutex.
int WaitInLockDuring(const Place& place, const std::function<void(ChildProcess&)>& action)
{
    ProcessMutex holder(s_Name);
    holder.Init();
    holder.Lock();
    ChildProcess waiter([] {
        ProcessMutex mutex(s_Name);
        mutex.Init();
        try {
            mutex.Lock();
        } catch (const SystemException& e) {
            return static_cast<int>(e.GetSysErr());
        }
        return 0;
    });
    if (!place.semaphore.WaitForWaiters(1)) {
        return -1;
    }
    action(waiter);
    return waiter.WaitForExitStatus();
}

TEST_F(ProcessMutexLock, ThrowsWhenStoppedAndContinuedInTheWait)
{
    EXPECT_EQ(WaitInLockDuring(m_Place,
                               [](ChildProcess& waiter) {
                                   waiter.Kill(SIGSTOP);
                                   int status = 0;
                                   waitpid(waiter.GetPid(), &status, WUNTRACED);
                                   EXPECT_TRUE(WIFSTOPPED(status));
                                   waiter.Kill(SIGCONT);
                               }),
              EINTR);
}

TEST_F(ProcessMutexLock, ThrowsWhenTheMutexIsDeletedInTheWait)
{
    EXPECT_EQ(WaitInLockDuring(m_Place,
                               [](ChildProcess&) {
                                   ProcessMutex other(s_Name);
                                   other.Init();
                                   other.Delete();
                               }),
              EIDRM);
}

TEST_F(ProcessMutexDelete, RemovesSemaphoreAndFileAndClosesIt)
{
    const unsigned int descriptors = CountDescriptors();
    ProcessMutex mutex(s_Name);
    mutex.Init();
    const int semaphore = m_Place.semaphore.FindSemaphore();
    EXPECT_EQ(mutex.Delete(), 0);
    EXPECT_FALSE(m_Place.FileExists());
    EXPECT_EQ(CountDescriptors(), descriptors);
    EXPECT_EQ(semctl(semaphore, 0, GETVAL), -1);
}

TEST_F(ProcessMutexDelete, MayBeDoneByAnAttacher)
{
    ASSERT_EQ(ProcessMutex(s_Name).Init(), 0);
    ProcessMutex mutex(s_Name);
    ASSERT_EQ(mutex.Init(), -1);
    const int semaphore = m_Place.semaphore.FindSemaphore();
    EXPECT_EQ(mutex.Delete(), 0);
    EXPECT_FALSE(m_Place.FileExists());
    EXPECT_EQ(semctl(semaphore, 0, GETVAL), -1);
}

TEST_F(ProcessMutexDelete, MakesRoomForAFreshMutex)
{
    ProcessMutex old(s_Name);
    old.Init();
    old.Lock();
    const int semaphore = m_Place.semaphore.FindSemaphore();
    old.Delete();
    ProcessMutex fresh(s_Name);
    EXPECT_EQ(fresh.Init(), 0);
    EXPECT_TRUE(fresh.IsCreator());
    EXPECT_NE(m_Place.semaphore.FindSemaphore(), semaphore);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
    EXPECT_EQ(ReadFile(m_Place.File()), "\x01");
}

TEST_F(ProcessMutexDelete, ClosesTheFileOnceOnly)
{
    auto mutex = std::make_unique<ProcessMutex>(s_Name);
    mutex->Init();
    mutex->Delete();
    // Takes the lowest free number: the one that was just closed.
    const int somebodys = open("/dev/null", O_RDONLY);
    mutex.reset();
    EXPECT_NE(fcntl(somebodys, F_GETFD), -1);
    close(somebodys);
}

TEST_F(ProcessMutexDelete, ReturnsTheResultOfTheUnlink)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    const FailingCall unlink("unlink", EACCES);
    EXPECT_EQ(mutex.Delete(), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_TRUE(unlink.WasHit());
    EXPECT_EQ(m_Place.semaphore.FindSemaphore(), -1);
}

TEST_F(ProcessMutexDelete, ThrowsWhenTheSemaphoreCannotBeRemoved)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    const unsigned int descriptors = CountDescriptors();
    {
        const FailingCall semctl("semctl", EPERM);
        EXPECT_TRUE(Throws<SystemException>([&] { mutex.Delete(); }, MutexFailure(189, EPERM)));
    }
    EXPECT_TRUE(m_Place.FileExists());
    EXPECT_EQ(CountDescriptors(), descriptors);
    EXPECT_EQ(mutex.Delete(), 0);
}

TEST_F(ProcessMutexDelete, ForgetsTheSemaphore)
{
    ProcessMutex mutex(s_Name);
    mutex.Init();
    mutex.Delete();
    // The system may give the old number to a stranger.
    std::vector<int> used;
    const Hook semop(interposed::semop, [&](int semaphore, sembuf*, std::size_t) {
        used.push_back(semaphore);
        return std::nullopt;
    });
    const Hook semctl(interposed::semctl, [&](int semaphore, int, int, SemaphoreArgument) {
        used.push_back(semaphore);
        return std::nullopt;
    });
    EXPECT_TRUE(Throws<SystemException>([&] { mutex.Delete(); }, MutexFailure(189, EINVAL)));
    EXPECT_TRUE(Throws<SystemException>([&] { mutex.Lock(); }, SystemFailure(EINVAL)));
    EXPECT_THAT(used, testing::ElementsAre(-1, -1));
}

TEST_F(ProcessMutexDelete, BeforeInitFailsAndTouchesNothing)
{
    m_Place.LeaveFile("\x01");
    int used = 0;
    const Hook semctl(interposed::semctl, [&](int semaphore, int, int, SemaphoreArgument) {
        used = semaphore;
        return std::nullopt;
    });
    ProcessMutex mutex(s_Name);
    EXPECT_TRUE(Throws<SystemException>([&] { mutex.Delete(); }, MutexFailure(189, EINVAL)));
    EXPECT_EQ(used, -1);
    EXPECT_TRUE(m_Place.FileExists());
}

TEST_F(ProcessMutexDestructor, LeavesSemaphoreAndFile)
{
    const unsigned int descriptors = CountDescriptors();
    {
        ProcessMutex mutex(s_Name);
        mutex.Init();
    }
    EXPECT_EQ(CountDescriptors(), descriptors);
    EXPECT_EQ(ReadFile(m_Place.File()), "\x01");
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
}

TEST_F(ProcessMutexDestructor, ClosesNothingWithoutAFile)
{
    ProcessMutex(s_Name).Init();
    ProcessMutex attached(s_Name);
    attached.Init();
    const CallCounter closes("close");
    {
        const ProcessMutex unused(s_Name);
    }
    EXPECT_EQ(attached.Delete(), 0);
    EXPECT_EQ(closes.GetCallCount(), 0U);
}

TEST_F(ProcessMutexDestructor, ClosesTheFileOfAThreadThatIsToBeCancelled)
{
    const unsigned int descriptors = CountDescriptors();
    EXPECT_TRUE(OutlivesCancellation([&] {
        ProcessMutex mutex(s_Name);
        mutex.Init();
        CancelMyself();
    }));
    EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(ProcessMutexDestructor, NeverClosesDescriptorZero)
{
    ChildProcess child([] {
        close(STDIN_FILENO);
        {
            ProcessMutex mutex(s_Name);
            mutex.Init();
            mutex.Delete();
        }
        return fcntl(STDIN_FILENO, F_GETFD) != -1 ? 0 : 1;
    });
    EXPECT_EQ(child.WaitForExitStatus(), 0);
}

// The soak: processes lock, stay inside for a moment and unlock, while they are killed at random
// moments and replaced. Who is inside says so in shared memory and takes it back before unlocking;
// what the next one finds there is the proof of a kill inside.

struct MutexSoakTargets
{
    unsigned int killsInside; ///< Proven ones; the soak goes on until it has them.
    std::chrono::seconds bound;
};

constexpr MutexSoakTargets s_ShortSoak{40, std::chrono::seconds(60)};
constexpr MutexSoakTargets s_FullSoak{1000, std::chrono::seconds(110)};
constexpr MutexSoakTargets s_SmallSoak{5, std::chrono::seconds(60)};
constexpr std::size_t s_SoakProcesses = 8;

/// What the processes of a soak share.
struct SoakPage
{
    std::atomic<bool> stop{false};
    std::atomic<bool> violated{false};
    std::atomic<pid_t> inside{0}; ///< 0: nobody.
    std::atomic<unsigned int> entries{0};
    std::atomic<unsigned int> killedInside{0};
};

/// True when the process has ended or is on its way out of the kernel: a dying process may still
/// look alive to `kill` when the next one already owns its mutex.
bool IsDyingOrDead(pid_t pid)
{
    std::string status;
    // Stays empty also when the process vanishes between the opening and the reading.
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::getline(file, status);
    const std::size_t name = status.rfind(')');
    if (name == std::string::npos) {
        return true;
    }
    unsigned int flags = 0;
    std::sscanf(status.c_str() + name + 1, " %*c %*d %*d %*d %*d %*d %u", &flags);
    constexpr unsigned int exiting = 0x4;
    return (flags & exiting) != 0;
}

void StayInside(SoakPage& page, unsigned int microseconds)
{
    const pid_t self = getpid();
    if (const pid_t former = page.inside.exchange(self); former != 0) {
        if (!IsDyingOrDead(former)) {
            page.violated = true;
            return;
        }
        ++page.killedInside;
    }
    ++page.entries;
    usleep(microseconds);
    if (page.inside.exchange(0) != self) {
        page.violated = true;
    }
}

/// What protects the soak: the mutex as it is, or with a part of it taken away.
enum class Guard { Whole, WithoutUndo, None };

int SoakProcess(Guard guard, SoakPage& page)
{
    const SemopHook semop = WithFlags([guard](short flags) -> std::optional<short> {
        if (guard == Guard::None) {
            return std::nullopt;
        }
        return static_cast<short>(guard == Guard::Whole ? flags : flags & ~SEM_UNDO);
    });
    std::minstd_rand random(static_cast<unsigned int>(getpid()));
    std::uniform_int_distribution<unsigned int> stay(0, 1000);
    ProcessMutex mutex(s_Name);
    mutex.Init();
    while (!page.stop && !page.violated) {
        mutex.Lock();
        StayInside(page, stay(random));
        mutex.Unlock();
    }
    return 0;
}

struct SoakResult
{
    bool violated = false;
    bool stalled = false;
    unsigned int entries = 0;
    unsigned int kills = 0;
    unsigned int killsInside = 0;
};

/// Ends when enough owners have been killed inside, with the first violation, when nobody has
/// entered for `stallLimit`, or at its bound.
SoakResult Soak(Guard guard, const MutexSoakTargets& targets, std::chrono::milliseconds stallLimit)
{
    using Clock = std::chrono::steady_clock;
    void* memory =
        mmap(nullptr, sizeof(SoakPage), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    SoakPage& page = *new (memory) SoakPage;
    ProcessMutex(s_Name).Init();
    const auto start = [&] {
        return std::make_unique<ChildProcess>([&] { return SoakProcess(guard, page); });
    };
    std::vector<std::unique_ptr<ChildProcess>> processes;
    std::generate_n(std::back_inserter(processes), s_SoakProcesses, start);

    SoakResult result;
    std::minstd_rand random(static_cast<unsigned int>(getpid()));
    std::uniform_int_distribution<std::size_t> victim(0, processes.size() - 1);
    std::uniform_int_distribution<int> pause(1, 8);
    const auto end = Clock::now() + targets.bound;
    auto lastEntry = Clock::now();
    while (!page.violated && !result.stalled && page.killedInside < targets.killsInside &&
           Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(pause(random)));
        if (const unsigned int entries = page.entries; entries != result.entries) {
            result.entries = entries;
            lastEntry = Clock::now();
        }
        result.stalled = Clock::now() - lastEntry > stallLimit;
        std::unique_ptr<ChildProcess>& process = processes[victim(random)];
        process->Kill(SIGKILL);
        process->Wait();
        process = start();
        ++result.kills;
    }
    page.stop = true;
    if (!result.stalled) {
        for (const auto& process : processes) {
            EXPECT_EQ(process->WaitForExitStatus(), 0);
        }
    }
    processes.clear();
    result.violated = page.violated;
    result.killsInside = page.killedInside;
    munmap(memory, sizeof(SoakPage));
    return result;
}

TEST_F(ProcessMutexSoak, SurvivesKilledHolders)
{
    const MutexSoakTargets targets = SelectSoak(s_ShortSoak, s_FullSoak, s_SmallSoak);
    const SoakResult result = Soak(Guard::Whole, targets, std::chrono::seconds(30));
    EXPECT_FALSE(result.violated);
    EXPECT_FALSE(result.stalled);
    EXPECT_GE(result.killsInside, targets.killsInside);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 1);
    ReportSoak(std::to_string(s_SoakProcesses) + " processes, " + std::to_string(result.kills) +
               " kills, " + std::to_string(result.killsInside) + " proven inside, " +
               std::to_string(result.entries) + " entries, " +
               (result.violated ? "exclusion violated, " : "0 violations, ") +
               (result.stalled ? "stalled" : "0 stalls"));
}

TEST_F(ProcessMutexSoak, StallsWithoutUndo)
{
    // The control: it is the undo that the soak above depends on.
    const SoakResult result = Soak(Guard::WithoutUndo, s_ShortSoak, std::chrono::seconds(1));
    EXPECT_TRUE(result.stalled);
    EXPECT_FALSE(result.violated);
    EXPECT_EQ(m_Place.semaphore.GetValue(), 0);
    ReportSoak("without undo: " + std::string(result.stalled ? "stalled" : "went on") + " after " +
               std::to_string(result.entries) + " entries and " + std::to_string(result.kills) +
               " kills");
}

TEST_F(ProcessMutexSoak, SeesWhenNothingExcludes)
{
    // The other control: two inside at once are noticed.
    const SoakResult result = Soak(Guard::None, s_ShortSoak, std::chrono::seconds(30));
    EXPECT_TRUE(result.violated);
}

} // namespace
