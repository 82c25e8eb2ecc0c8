#pragma once

#include <VelaHost_Utility/Export.h>

#include <csignal>
#include <string>
#include <sys/types.h>

namespace VelaHost_OS {

/// A mutex shared by unrelated processes on one machine that know its name, not recursive.
///
/// It is a System V semaphore found through a small lock file. The process that creates the file
/// sets the semaphore and then marks the file as ready; all others wait for that mark. The kernel
/// releases the mutex when its holder dies, however it dies. File and semaphore outlive the
/// processes until one of them calls `Delete()`.
///
/// A failed system call throws `VelaHost_Utility::SystemException`, code 0x2002. Any thread may
/// lock, but an object keeps the signal mask of one holder only: threads that need the mutex at the
/// same time use objects of their own for the same name.
class VELAHOST_EXPORT ProcessMutex
{
public:
    /// The lock file is `name`, not null, in the folder "temp" of the directory that the
    /// environment variable `KAVRI_VELA_DIR` names, taken as it stands; in "/tmp" when the variable
    /// is not set. Touches neither files nor semaphores; the folder must exist by the time of
    /// `Init()`.
    explicit ProcessMutex(const char* name);
    ProcessMutex(const ProcessMutex&) = delete;
    ProcessMutex& operator=(const ProcessMutex&) = delete;

    /// Leaves lock file and semaphore in place.
    ~ProcessMutex();

    /// Creates the mutex, free, or attaches to it; to be called once, before `Lock()`. Returns 0
    /// when this process created it, -1 when it already existed: both are success. For an existing
    /// one it waits until the creator has marked it as ready, without limit, looking every 500
    /// milliseconds; see docs/limits.md for a creator that never got that far.
    ///
    /// The lock file and the semaphore get the read and write permissions of the install directory
    /// (`KAVRI_VELA_DIR`, "/usr/vela" when that is not set), or 0666 when it can't be examined.
    /// The process's file-creation mask is 0 for a moment. A request to cancel the thread takes
    /// effect in the wait for an existing one, else after the return.
    int Init();

    /// Blocks all signals in the calling thread, then waits until the mutex is free and takes it.
    /// Returns 0. When it throws, the signals stay blocked.
    int Lock();

    /// Releases the mutex, then gives the thread the signal mask back that `Lock()` met. Returns 0.
    /// When it throws, the signals stay blocked.
    int Unlock();

    /// Removes the semaphore and the lock file; for the one process that tears the mutex down.
    /// Whoever waits in `Lock()` gets an exception. Returns 0, or -1 with `errno` when the file
    /// could not be removed. When it throws, the file is still there.
    int Delete();

    /// The lock file.
    const std::string& GetPath() const { return m_Path; }
    /// After `Init()`: this process created the mutex. True before.
    bool IsCreator() const { return m_Created; }

private:
    mode_t CreateLockFile();
    void WaitForReadyMark() const;
    void CloseLockFile();

    int m_SemaphoreId;
    std::string m_Path;
    bool m_Created;
    int m_Fd;
    sigset_t m_BlockedSignals;
    sigset_t m_SavedSignals;
};

} // namespace VelaHost_OS
