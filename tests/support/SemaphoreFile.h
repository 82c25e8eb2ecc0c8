#pragma once

#include <string>

namespace velahost_test {

/// The semaphore whose key is made from a file that need not exist yet. It is removed at
/// destruction and also when the test program is killed. The file must lie in a temporary directory
/// and outlive its semaphore.
class SemaphoreFile
{
public:
    explicit SemaphoreFile(std::string path);
    SemaphoreFile(const SemaphoreFile&) = delete;
    SemaphoreFile& operator=(const SemaphoreFile&) = delete;
    ~SemaphoreFile();

    const std::string& GetPath() const { return m_Path; }
    /// -1 when there is none.
    int FindSemaphore() const;
    /// Its value; -1 when there is no semaphore.
    int GetValue() const;
    /// Its permissions; -1 when there is no semaphore.
    int GetMode() const;
    /// How many semaphores its set has; -1 when there is no semaphore.
    int GetElementCount() const;
    /// Returns when that many threads wait for it; false when that takes too long.
    bool WaitForWaiters(int count) const;

private:
    std::string m_Path;
};

} // namespace velahost_test
