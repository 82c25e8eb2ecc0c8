#include "Objects.h"

#include "support/FakeClock.h"
#include "support/FileState.h"
#include "support/InstallDirectory.h"
#include "support/Interpose.h"
#include "support/SemaphoreFile.h"
#include "support/TemporaryDirectory.h"
#include "support/interpose/FileStatus.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_OS/LibraryVersion.h>
#include <VelaHost_OS/ProcessMutex.h>
#include <VelaHost_OS/SharedMemory.h>
#include <VelaHost_OS/StringHelpers.h>
#include <VelaHost_OS/SystemInfo.h>

#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

// A version that the program itself publishes.
extern "C" {
[[gnu::visibility("default")]] const char* InTorture_LibraryVersion =
    "InTorture 1.2.3.4 with a text that needs memory";
}

namespace velahost_test {

namespace {

using VelaHost_OS::ProcessMutex;
using VelaHost_OS::SharedMemory;
using VelaHost_Utility::SystemException;

constexpr mode_t s_CreationMask = 022;
constexpr mode_t s_InstallMode = 0750; // makes files of 0640
constexpr mode_t s_ReadAndWrite = 0666;

std::string Octal(mode_t mode)
{
    char text[16];
    std::snprintf(text, sizeof text, "%o", static_cast<unsigned int>(mode));
    return text;
}

/// What a file gets when the environment names no install directory.
std::string ModeWithoutVariable()
{
    return Octal(GetMode("/usr/vela").value_or(s_ReadAndWrite) & s_ReadAndWrite);
}

/// An install directory, and a name that also makes a path when there is none.
struct Names
{
    TemporaryDirectory directory;
    std::string install = directory.File("install");
    std::string name = std::filesystem::path(directory.GetPath()).filename().string() + "/mutex";
    std::string path = install + "/temp/" + name;
    InstallVariable variable{install};
    CreationMask mask{s_CreationMask};

    Names()
    {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        chmod(install.c_str(), s_InstallMode);
    }
};

/// A process mutex that has not been initialised; waiting for its ready mark ends soon.
struct NewMutex : Names
{
    SemaphoreFile semaphore{path};
    sigset_t formerSignals = GetSignals();
    int sleeps = 0;
    Hook<int(const WideTimespec*, WideTimespec*)> sleep{
        interposed::nanosleep, [this](const WideTimespec*, WideTimespec*) -> std::optional<int> {
            if (++sleeps == 3) {
                sleeps = 0;
                throw Interrupted{"still waiting"};
            }
            return 0;
        }};
    ProcessMutex* mutex = new ProcessMutex(name.c_str());

    ~NewMutex()
    {
        delete mutex;
        sigprocmask(SIG_SETMASK, &formerSignals, nullptr);
    }

    static sigset_t GetSignals()
    {
        sigset_t signals;
        sigprocmask(SIG_BLOCK, nullptr, &signals);
        return signals;
    }
    std::string GetState() const
    {
        const std::optional<mode_t> mode = GetMode(path);
        std::string state = "no file";
        if (mode) {
            state = "file " + Octal(*mode) +
                    (std::filesystem::file_size(path) != 0 ? " marked" : " unmarked");
        }
        state += semaphore.FindSemaphore() == -1
                     ? ", no semaphore"
                     : ", semaphore " + std::to_string(semaphore.GetValue()) + " " +
                           Octal(static_cast<mode_t>(semaphore.GetMode()));
        const sigset_t signals = GetSignals();
        state += sigismember(&signals, SIGTERM) == 1 ? ", blocked" : ", unblocked";
        return state + ", mask " + Octal(GetCreationMask());
    }
};

struct ReadyMutex : NewMutex
{
    ReadyMutex() { mutex->Init(); }
};

struct HeldProcessMutex : ReadyMutex
{
    HeldProcessMutex() { mutex->Lock(); }
};

/// Another object has created the mutex.
struct ForeignMutex : NewMutex
{
    ForeignMutex() { ProcessMutex(name.c_str()).Init(); }
};

/// Its creator marks the file only while this one sleeps.
struct UnmarkedMutex : ForeignMutex
{
    Hook<int(const WideTimespec*, WideTimespec*)> markingSleep{
        interposed::nanosleep, [this](const WideTimespec*, WideTimespec*) -> std::optional<int> {
            std::filesystem::resize_file(path, 1);
            if (++sleeps == 3) {
                sleeps = 0;
                throw Interrupted{"still waiting"};
            }
            return 0;
        }};

    UnmarkedMutex() { std::filesystem::resize_file(path, 0); }
};

Told Init(NewMutex& f)
{
    return Told::Number(f.mutex->Init());
}

Effect ThrowsAt(unsigned int line, int errnoValue)
{
    Failure failure = SystemFailure(errnoValue);
    failure.file = "src/unix/OSProcessMutex";
    failure.line = line;
    return Throws<SystemException>(failure);
}

constexpr unsigned int s_Size = 8192;

/// A region that has not been created.
struct NewRegion : Names
{
    std::string file = directory.File("region of a name that needs memory");
    SharedMemory* region = new SharedMemory(file.c_str());
    void* mapping = MAP_FAILED;

    ~NewRegion()
    {
        Unmap();
        delete region;
    }

    void Unmap()
    {
        if (mapping != MAP_FAILED) {
            munmap(mapping, s_Size);
            mapping = MAP_FAILED;
        }
    }
    Told Map(void* address)
    {
        const int error = errno;
        Unmap();
        mapping = address;
        errno = error;
        return Told::Success(mapping != MAP_FAILED);
    }
    std::string GetState() const
    {
        std::string state = "gone";
        if (region != nullptr) {
            state = "size " + std::to_string(region->GetSize()) +
                    (region->GetFd() != -1 ? ", open" : ", closed");
        }
        const std::optional<mode_t> mode = GetMode(file);
        state += mode ? ", file " + Octal(*mode) + " of " +
                            std::to_string(std::filesystem::file_size(file))
                      : ", no file";
        return state + (mapping != MAP_FAILED ? ", mapped" : "") + ", mask " +
               Octal(GetCreationMask());
    }
};

struct FullDisk : NewRegion
{
    Hook<ssize_t(int, const void*, std::size_t)> write{
        interposed::write, [](int, const void*, std::size_t) { return ssize_t{100}; }};
};

struct CreatedRegion : NewRegion
{
    CreatedRegion() { region->Create(s_Size); }
};

/// Created by another object.
struct ForeignRegion : NewRegion
{
    ForeignRegion() { SharedMemory(file.c_str()).Create(s_Size); }
};

/// A time and a machine of the test's making.
struct Platform
{
    FakeClock clock{1'000'000'000, 499'700};
    Hook<int(const WideTimespec*, WideTimespec*)> sleep{
        interposed::nanosleep, [](const WideTimespec*, WideTimespec*) { return 0; }};
    Hook<long(int)> configuration{interposed::sysconf, [](int) { return 4L; }};

    static std::string GetState() { return ""; }
};

/// A library of the tests, looked for under its name.
struct Library
{
    static constexpr const char* file = "mixedcase.so";

    std::string version = "untouched";

    ~Library() { Unload(); }

    static bool IsLoaded()
    {
        void* library = dlopen(file, RTLD_LAZY | RTLD_NOLOAD);
        if (library != nullptr) {
            dlclose(library);
        }
        return library != nullptr;
    }
    static void Unload()
    {
        while (void* library = dlopen(file, RTLD_LAZY | RTLD_NOLOAD)) {
            dlclose(library);
            dlclose(library);
        }
    }
    std::string GetState() const { return version + (IsLoaded() ? ", loaded" : ", not loaded"); }
};

struct LoadedLibrary : Library
{
    LoadedLibrary() { dlopen(file, RTLD_LAZY); }
};

template <typename Fixture>
Told FindVersion(Fixture& f)
{
    return Told::Number(VelaHost_OS::GetLibraryVersion("MixedCase", f.version));
}

std::vector<Operation> MutexOperations()
{
    constexpr unsigned int each = Row::each;
    const auto state = [](const std::string& file, const std::string& semaphore) {
        return file + ", " + semaphore + ", unblocked, mask 22";
    };
    const std::string marked = state("file 640 marked", "semaphore 1 640");
    const auto markedWith = [&](const std::string& mode) {
        return state("file " + mode + " marked", "semaphore 1 " + mode);
    };
    const std::string waiting = "still waiting";

    // The permissions are only asked for then; the semaphore is there.
    const std::vector<Row> attaching{{"getenv", each, ENOENT, Ignored()},
                                     {"stat", each, EACCES, Ignored()},
                                     {"open", 1, EACCES, ThrowsAt(132, EACCES)},
                                     {"open", 1, EEXIST, Ignored(), ThrowsAt(178, EEXIST)},
                                     {"open", 2, EMFILE, ThrowsAt(178, EMFILE)},
                                     {"ftok", each, EACCES, ThrowsAt(141, EACCES)},
                                     {"semget", each, ENOMEM, ThrowsAt(146, ENOMEM)},
                                     {"read", each, EIO, Ignored(), Tells(waiting).Leaves(marked)},
                                     {"close", each, EIO, Ignored()}};
    std::vector<Row> waitingForMark = attaching;
    waitingForMark.push_back({"nanosleep", each, EINTR, Ignored()});

    return {
        // The sets are filled without a look at the result.
        {"ProcessMutex_Construct",
         With<NewMutex>([](NewMutex& f) {
             const ProcessMutex made(f.name.c_str());
             return Told(made.GetPath() == f.path ? "in the install directory" : "elsewhere");
         }),
         Tells("in the install directory"),
         {{"getenv", each, ENOENT, Tells("elsewhere")},
          {"sigfillset", each, EINVAL, Ignored()},
          {"sigemptyset", each, EINVAL, Ignored()}}},

        {"ProcessMutex_Destroy",
         With<ReadyMutex>([](ReadyMutex& f) {
             delete std::exchange(f.mutex, nullptr);
             return Told("deleted");
         }),
         Tells("deleted"),
         {{"close", each, EIO, Ignored()}}},

        // A file without its mark makes everybody wait, the next Init of its creator, too.
        {"ProcessMutex_Init_Creates",
         With<NewMutex>(Init),
         Tells("0").Leaves(marked),
         {{"getenv", each, ENOENT, Tells("0").Leaves(markedWith(ModeWithoutVariable())).Then("-1")},
          {"stat", each, EACCES, Tells("0").Leaves(markedWith("666")).Then("-1")},
          {"open", each, EACCES, ThrowsAt(132, EACCES)},
          {"open", each, EEXIST, ThrowsAt(141, ENOENT)},
          {"ftok", each, EACCES,
           ThrowsAt(141, EACCES).Leaves(state("file 640 unmarked", "no semaphore")).Then(waiting)},
          {"semget", each, ENOSPC,
           ThrowsAt(146, ENOSPC).Leaves(state("file 640 unmarked", "no semaphore")).Then(waiting)},
          {"semctl", each, EPERM,
           ThrowsAt(155, EPERM)
               .Leaves(state("file 640 unmarked", "semaphore 0 640"))
               .Then(waiting)},
          // The result of writing the mark is not tested.
          {"write", each, ENOSPC,
           Tells("0").Leaves(state("file 640 unmarked", "semaphore 1 640")).Then(waiting)}}},

        {"ProcessMutex_Init_Attaches", With<ForeignMutex>([](ForeignMutex& f) { return Init(f); }),
         Tells("-1"), attaching},

        {"ProcessMutex_Init_Waits", With<UnmarkedMutex>([](UnmarkedMutex& f) { return Init(f); }),
         Tells("-1").Leaves(marked), waitingForMark},

        {"ProcessMutex_Lock",
         With<ReadyMutex>([](ReadyMutex& f) { return Told::Number(f.mutex->Lock()); }),
         Tells("0").Leaves("file 640 marked, semaphore 0 640, blocked, mask 22"),
         {{"sigprocmask", each, EINVAL,
           Tells("0").Leaves(state("file 640 marked", "semaphore 0 640")).ThenNoMore()},
          {"semop", each, EINTR,
           ThrowsSystem(EINTR).Leaves("file 640 marked, semaphore 1 640, blocked, mask 22")}}},

        // A second Unlock succeeds as well, and raises the semaphore.
        {"ProcessMutex_Unlock",
         With<HeldProcessMutex>(
             [](HeldProcessMutex& f) { return Told::Number(f.mutex->Unlock()); }),
         Tells("0").Leaves(marked),
         {{"semop", each, EIDRM, ThrowsSystem(EIDRM)},
          {"sigprocmask", each, EINVAL,
           Tells("0").Leaves("file 640 marked, semaphore 1 640, blocked, mask 22")}}},

        {"ProcessMutex_Delete",
         With<ReadyMutex>([](ReadyMutex& f) { return Told::Result(f.mutex->Delete()); }),
         Tells("0").Leaves(state("no file", "no semaphore")),
         {{"semctl", each, EPERM, ThrowsAt(189, EPERM)},
          {"close", each, EIO, Ignored()},
          {"unlink", each, EACCES,
           Tells("-1, errno 13")
               .Leaves(state("file 640 marked", "no semaphore"))
               .Then(ThrowsAt(189, EINVAL).told)}}},
    };
}

std::vector<Operation> RegionOperations()
{
    constexpr unsigned int each = Row::each;
    const std::string exists = "-1, errno " + std::to_string(EEXIST);
    const auto failed = [](int error) { return Tells("-1, errno " + std::to_string(error)); };
    const std::string removed = "size 0, open, no file, mask 22";

    return {
        {"SharedMemory_Construct", With<NewRegion>([](NewRegion& f) {
             const SharedMemory made(f.file.c_str());
             return Told::Number(made.GetFd());
         }),
         Tells("-1")},

        {"SharedMemory_Destroy",
         With<CreatedRegion>([](CreatedRegion& f) {
             delete std::exchange(f.region, nullptr);
             return Told("deleted");
         }),
         Tells("deleted").Leaves("gone, file 640 of 8192, mask 22"),
         {{"close", each, EIO, Ignored()}}},

        // A failed open leaves the creation mask open; a failed write or flush takes the file away
        // and leaves the descriptor.
        {"SharedMemory_Create",
         With<NewRegion>([](NewRegion& f) { return Told::Result(f.region->Create(s_Size)); }),
         Tells("0").Leaves("size 8192, open, file 640 of 8192, mask 22"),
         {{"mmap", each, ENOMEM, failed(ENOMEM)},
          {"getenv", each, ENOENT,
           Tells("0")
               .Leaves("size 8192, open, file " + ModeWithoutVariable() + " of 8192, mask 22")
               .Then(exists)},
          {"stat", each, EACCES,
           Tells("0").Leaves("size 8192, open, file 666 of 8192, mask 22").Then(exists)},
          {"open", each, EACCES, failed(EACCES).Leaves("size 0, closed, no file, mask 0")},
          {"write", each, EIO, failed(EIO).Leaves(removed)},
          {"fsync", each, EIO, failed(EIO).Leaves(removed)},
          {"munmap", each, ENOMEM, Ignored().KeepingMemory()}}},

        // The cause stays in errno over the removal.
        {"SharedMemory_Create_DiskFull",
         With<FullDisk>([](FullDisk& f) { return Told::Result(f.region->Create(s_Size)); }),
         failed(ENOSPC).Leaves(removed),
         {{"mmap", each, ENOMEM, failed(ENOMEM)},
          {"getenv", each, ENOENT, Ignored()},
          {"stat", each, EACCES, Ignored()},
          {"open", each, EACCES, failed(EACCES).Leaves("size 0, closed, no file, mask 0")},
          {"write", each, EIO, failed(EIO).Leaves(removed)},
          {"unlink", each, EACCES,
           failed(ENOSPC).Leaves("size 0, open, file 640 of 0, mask 22").Then(exists)},
          {"munmap", each, ENOMEM, Ignored().KeepingMemory()}}},

        // The seeks are taken as they are.
        {"SharedMemory_Open",
         With<ForeignRegion>([](ForeignRegion& f) { return Told::Result(f.region->Open()); }),
         Tells("0").Leaves("size 8192, open, file 640 of 8192, mask 22"),
         {{"open", each, EMFILE, failed(EMFILE)},
          {"lseek", 1, ESPIPE,
           Tells("0").Leaves("size 4294967295, open, file 640 of 8192, mask 22")},
          {"lseek", 2, ESPIPE, Ignored()}}},

        {"SharedMemory_Open_Again",
         With<CreatedRegion>([](CreatedRegion& f) { return Told::Result(f.region->Open()); }),
         Tells("0"),
         {{"open", each, EMFILE,
           failed(EMFILE).Leaves("size 0, closed, file 640 of 8192, mask 22")},
          {"lseek", 1, ESPIPE,
           Tells("0").Leaves("size 4294967295, open, file 640 of 8192, mask 22")},
          {"lseek", 2, ESPIPE, Ignored()},
          {"close", each, EIO, Ignored()}}},

        {"SharedMemory_Map",
         With<CreatedRegion>([](CreatedRegion& f) { return f.Map(f.region->Map(s_Size, 0)); }),
         Tells("true").Leaves("size 8192, open, file 640 of 8192, mapped, mask 22"),
         {{"mmap", each, EAGAIN, Tells("false, errno 11")}}},

        {"SharedMemory_Map_Whole",
         With<CreatedRegion>([](CreatedRegion& f) { return f.Map(f.region->Map()); }),
         Tells("true").Leaves("size 8192, open, file 640 of 8192, mapped, mask 22"),
         {{"mmap", each, EAGAIN, Tells("false, errno 11")}}},

        {"SharedMemory_Delete",
         With<CreatedRegion>([](CreatedRegion& f) { return Told::Result(f.region->Delete()); }),
         Tells("0").Leaves("size 8192, open, no file, mask 22"),
         {{"unlink", each, EACCES, failed(EACCES)}}},
    };
}

std::vector<Operation> SystemInfoOperations()
{
    constexpr unsigned int each = Row::each;

    return {
        // Only the clock's own failure is one. The zone does not touch the milliseconds.
        {"SystemInfo_GetLocalTime",
         With<Platform>([](Platform&) {
             VelaHost_OS::_SYSTEMTIME time{};
             VelaHost_OS::GetLocalTime(&time);
             return Told::Number(time.milliseconds);
         }),
         Tells("500"),
         {{"gettimeofday", each, EINVAL, ThrowsSystem(EINVAL)},
          {"localtime_r", each, EOVERFLOW, Ignored()}}},

        {"SystemInfo_GetLogTime",
         With<Platform>([](Platform&) {
             unsigned int fields[4] = {};
             VelaHost_OS::GetLogTime(&fields[0], &fields[1], &fields[2], &fields[3]);
             return Told::Number(fields[3]);
         }),
         Tells("500"),
         {{"gettimeofday", each, EINVAL, ThrowsSystem(EINVAL)},
          {"localtime_r", each, EOVERFLOW, Ignored()}}},

        {"SystemInfo_GetElapsedSecs",
         With<Platform>([](Platform&) { return Told::Number(VelaHost_OS::GetElapsedSecs()); }),
         Tells("1000000000"),
         {{"gettimeofday", each, EINVAL, ThrowsSystem(EINVAL)}}},

        {"SystemInfo_gethrtime",
         With<Platform>([](Platform&) { return Told::Number(VelaHost_OS::gethrtime()); }),
         Tells("1000000000499700000"),
         {{"gettimeofday", each, EINVAL, Tells("0")}}},

        {"SystemInfo_SleepMilliseconds",
         With<Platform>(
             [](Platform&) { return Told::Result(VelaHost_OS::SleepMilliseconds(1500)); }),
         Tells("0"),
         {{"nanosleep", each, EINTR, Tells("-1, errno 4")}}},

        {"SystemInfo_GetNumProcessors",
         With<Platform>([](Platform&) { return Told::Number(VelaHost_OS::GetNumProcessors()); }),
         Tells("4"),
         {{"sysconf", each, EINVAL, Tells("-1")}}},

        {"SystemInfo_GetLastError", With<Platform>([](Platform&) {
             errno = EDOM;
             return Told::Number(VelaHost_OS::GetLastError());
         }),
         Tells(std::to_string(EDOM))},

        {"SystemInfo_OutputDebugString", With<Platform>([](Platform&) {
             char text[] = "ignored";
             VelaHost_OS::OutputDebugString(text);
             return Told("done");
         }),
         Tells("done")},

        {"StringHelpers_strlwr", With<Platform>([](Platform&) {
             char text[] = "Mixed CASE";
             return Told(VelaHost_OS::strlwr(text));
         }),
         Tells("mixed case")},
    };
}

std::vector<Operation> VersionOperations()
{
    constexpr unsigned int each = Row::each;

    return {
        {"LibraryVersion_InProcess", With<Library>([](Library& f) {
             return Told::Number(VelaHost_OS::GetLibraryVersion("InTorture", f.version));
         }),
         Tells("1").Leaves("InTorture 1.2.3.4 with a text that needs memory, not loaded")},

        {"LibraryVersion_File",
         With<Library>(FindVersion<Library>),
         Tells("1").Leaves("MixedCase 3.1.4.1, not loaded"),
         {{"dlopen", 1, ENOMEM, Tells("0")},
          {"dlopen", 2, ENOMEM, Ignored()},
          {"dlclose", each, EINVAL, Tells("1").Leaves("MixedCase 3.1.4.1, loaded")}}},

        {"LibraryVersion_Loaded",
         With<LoadedLibrary>(FindVersion<LoadedLibrary>),
         Tells("1").Leaves("MixedCase 3.1.4.1, loaded"),
         {{"dlopen", 1, ENOMEM, Tells("0")},
          {"dlopen", 2, ENOMEM, Ignored()},
          {"dlclose", each, EINVAL, Ignored()}}},
    };
}

} // namespace

std::vector<Operation> ProcessOperations()
{
    std::vector<Operation> all;
    for (const auto table :
         {MutexOperations, RegionOperations, SystemInfoOperations, VersionOperations}) {
        for (Operation& operation : table()) {
            all.push_back(std::move(operation));
        }
    }
    return all;
}

} // namespace velahost_test
