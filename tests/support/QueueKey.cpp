#include "QueueKey.h"

#include "Janitor.h"

#include <sys/ipc.h>
#include <sys/msg.h>

namespace velahost_test {

QueueKey::QueueKey() : m_Path(m_Directory.WriteFile("queue", ""))
{
    janitor::Register(janitor::Kind::MessageQueue, m_Path, GetId());
}

QueueKey::~QueueKey()
{
    janitor::Remove(janitor::Kind::MessageQueue, m_Path, GetId());
    janitor::Forget(janitor::Kind::MessageQueue, m_Path, GetId());
}

key_t QueueKey::GetKey() const
{
    return ftok(m_Path.c_str(), GetId());
}

int QueueKey::FindQueue() const
{
    return msgget(GetKey(), 0);
}

} // namespace velahost_test
