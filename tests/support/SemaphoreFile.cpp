#include "SemaphoreFile.h"

#include "Janitor.h"
#include "interpose/Interposed.h"

#include <chrono>
#include <optional>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <thread>
#include <utility>

namespace velahost_test {

namespace {

std::optional<semid_ds> ReadState(int semaphore)
{
    semid_ds state{};
    SemaphoreArgument argument{};
    argument.state = &state;
    return semctl(semaphore, 0, IPC_STAT, argument) == -1 ? std::nullopt : std::optional(state);
}

} // namespace

SemaphoreFile::SemaphoreFile(std::string path) : m_Path(std::move(path))
{
    janitor::Register(janitor::Kind::Semaphore, m_Path);
}

SemaphoreFile::~SemaphoreFile()
{
    janitor::Remove(janitor::Kind::Semaphore, m_Path);
    janitor::Forget(janitor::Kind::Semaphore, m_Path);
}

int SemaphoreFile::FindSemaphore() const
{
    const key_t key = ftok(m_Path.c_str(), 0);
    return key == -1 ? -1 : semget(key, 0, 0);
}

int SemaphoreFile::GetValue() const
{
    return semctl(FindSemaphore(), 0, GETVAL);
}

int SemaphoreFile::GetMode() const
{
    const std::optional<semid_ds> state = ReadState(FindSemaphore());
    return state ? static_cast<int>(state->sem_perm.mode & 0777U) : -1;
}

int SemaphoreFile::GetElementCount() const
{
    const std::optional<semid_ds> state = ReadState(FindSemaphore());
    return state ? static_cast<int>(state->sem_nsems) : -1;
}

bool SemaphoreFile::WaitForWaiters(int count) const
{
    // The kernel tells nobody when somebody starts to wait, so this looks.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (semctl(FindSemaphore(), 0, GETNCNT) != count) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace velahost_test
