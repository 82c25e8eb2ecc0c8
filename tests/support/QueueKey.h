#pragma once

#include "TemporaryDirectory.h"

#include <string>
#include <sys/types.h>

namespace velahost_test {

/// A System V message queue key that nobody else uses. Whatever queue has that key is removed at
/// destruction and also when the test program is killed.
class QueueKey
{
public:
    QueueKey();
    QueueKey(const QueueKey&) = delete;
    QueueKey& operator=(const QueueKey&) = delete;
    ~QueueKey();

    const char* GetPath() const { return m_Path.c_str(); }
    char GetId() const { return 'v'; }
    key_t GetKey() const;
    /// The identifier of the queue with this key, -1 when there is none.
    int FindQueue() const;

private:
    TemporaryDirectory m_Directory;
    std::string m_Path;
};

} // namespace velahost_test
