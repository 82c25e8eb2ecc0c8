#include <VelaHost_OS/ProcessMutex.h>

#include "InstallDirectory.h"
#include "NoCancellation.h"
#include "OpenCreationMask.h"

#include <VelaHost_OS/SystemInfo.h>
#include <internal/ThrowSite.h>
#include <internal/unix/OSSystem.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

namespace VelaHost_OS {

static const std::string s_CompName("OS");

namespace {

constexpr VelaHost_Utility::Exception::Context Site(unsigned int line)
{
    return VelaHost_Utility::ThrowSite("src/unix/OSProcessMutex", line);
}

constexpr auto s_CreateFileSite = Site(132);
constexpr auto s_MakeKeySite = Site(141);
constexpr auto s_GetSemaphoreSite = Site(146);
constexpr auto s_SetSemaphoreSite = Site(155);
constexpr auto s_ReopenFileSite = Site(178);
constexpr auto s_RemoveSemaphoreSite = Site(189);

constexpr int s_KeyProject = 0;
constexpr unsigned int s_ReadyPollMilliseconds = 500;
constexpr char s_ReadyMark = 1;

/// What `semctl` takes last; the C library leaves its declaration to the caller.
union SemaphoreArgument {
    int value;
    semid_ds* state;
    unsigned short* values;
};

/// Closes its descriptor also when the thread is cancelled.
class ScopedDescriptor
{
public:
    explicit ScopedDescriptor(int fd) : m_Fd(fd) {}
    ScopedDescriptor(const ScopedDescriptor&) = delete;
    ScopedDescriptor& operator=(const ScopedDescriptor&) = delete;
    ~ScopedDescriptor() { CloseUncancelled(m_Fd); }

    int Get() const { return m_Fd; }

private:
    int m_Fd;
};

std::string MakePath(const char* name)
{
    std::string path("/tmp/");
    if (const char* directory = FindInstallDirectory()) {
        path = directory;
        path += "/temp/";
    }
    return path += name;
}

/// The kernel takes the change back when the process dies.
void ChangeSemaphore(int semaphoreId, short change)
{
    sembuf operation{};
    operation.sem_num = 0;
    operation.sem_op = change;
    operation.sem_flg = SEM_UNDO;
    CheckErrno(semop(semaphoreId, &operation, 1));
}

} // namespace

ProcessMutex::ProcessMutex(const char* name)
    : m_SemaphoreId(-1), m_Path(MakePath(name)), m_Created(true), m_Fd(-1)
{
    sigfillset(&m_BlockedSignals);
    sigemptyset(&m_SavedSignals);
}

ProcessMutex::~ProcessMutex()
{
    CloseLockFile();
}

int ProcessMutex::Init()
{
    {
        // A creator that were cancelled between file and mark would leave all others waiting.
        const NoCancellation shield;
        const mode_t permissions = CreateLockFile();
        const key_t key = ftok(m_Path.c_str(), s_KeyProject);
        CheckErrno(key, s_MakeKeySite);
        m_SemaphoreId = semget(key, 1, static_cast<int>(permissions) | IPC_CREAT);
        CheckErrno(m_SemaphoreId, s_GetSemaphoreSite);
        if (m_Created) {
            SemaphoreArgument argument{};
            argument.value = 1;
            CheckErrno(semctl(m_SemaphoreId, 0, SETVAL, argument), s_SetSemaphoreSite);
            [[maybe_unused]] const ssize_t untested = write(m_Fd, &s_ReadyMark, sizeof s_ReadyMark);
            return 0;
        }
    }
    WaitForReadyMark();
    return -1;
}

int ProcessMutex::Lock()
{
    sigprocmask(SIG_SETMASK, &m_BlockedSignals, &m_SavedSignals);
    ChangeSemaphore(m_SemaphoreId, -1);
    return 0;
}

int ProcessMutex::Unlock()
{
    ChangeSemaphore(m_SemaphoreId, 1);
    sigprocmask(SIG_SETMASK, &m_SavedSignals, nullptr);
    return 0;
}

int ProcessMutex::Delete()
{
    CheckErrno(semctl(m_SemaphoreId, 0, IPC_RMID), s_RemoveSemaphoreSite);
    m_SemaphoreId = -1;
    CloseLockFile();
    return unlink(m_Path.c_str());
}

mode_t ProcessMutex::CreateLockFile()
{
    CloseLockFile();
    mode_t permissions = 0;
    {
        const OpenCreationMask mask;
        permissions = GetSharedFilePermissions();
        m_Fd = open(m_Path.c_str(), O_WRONLY | O_CREAT | O_EXCL, permissions);
    }
    if (m_Fd == -1 && errno != EEXIST) {
        ThrowSystemError(s_CreateFileSite);
    }
    m_Created = m_Fd != -1;
    return permissions;
}

void ProcessMutex::WaitForReadyMark() const
{
    const int fd = open(m_Path.c_str(), O_RDONLY);
    CheckErrno(fd, s_ReopenFileSite);
    const ScopedDescriptor file(fd);
    char mark = 0;
    while (read(file.Get(), &mark, sizeof mark) != sizeof mark) {
        SleepMilliseconds(s_ReadyPollMilliseconds);
    }
}

void ProcessMutex::CloseLockFile()
{
    // Descriptor 0 is never closed here: it may be anybody's standard input.
    if (m_Fd > 0) {
        CloseUncancelled(m_Fd);
    }
    m_Fd = -1;
}

} // namespace VelaHost_OS
