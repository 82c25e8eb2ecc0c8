#include "support/Exchange.h"

#include <cstdio>
#include <cstdlib>
#include <sys/eventfd.h>
#include <unistd.h>

namespace bench {

void Require(bool succeeded, const char* what)
{
    if (!succeeded) {
        std::perror(what);
        abort();
    }
}

Notice::Notice() : m_Event(eventfd(0, 0))
{
    Require(m_Event != -1, "eventfd");
}

Notice::~Notice()
{
    close(m_Event);
}

void Notice::Tell(unsigned int number)
{
    Require(eventfd_write(m_Event, number) == 0, "eventfd_write");
}

unsigned int Notice::Await()
{
    eventfd_t number = 0;
    Require(eventfd_read(m_Event, &number) == 0, "eventfd_read");
    return static_cast<unsigned int>(number);
}

TemporaryPath::TemporaryPath() : m_Directory("/tmp/vela-bench-XXXXXX")
{
    Require(mkdtemp(m_Directory) != nullptr, "mkdtemp");
    std::snprintf(m_Path, sizeof m_Path, "%s/at", m_Directory);
}

TemporaryPath::~TemporaryPath()
{
    unlink(m_Path);
    rmdir(m_Directory);
}

} // namespace bench
