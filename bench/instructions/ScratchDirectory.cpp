#include "ScratchDirectory.h"

#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace instructions {

ScratchDirectory::ScratchDirectory() : m_Path("/tmp/vela-instructions-XXXXXX")
{
    if (mkdtemp(m_Path.data()) == nullptr || mkdir((m_Path + "/temp").c_str(), 0700) != 0 ||
        setenv("KAVRI_VELA_DIR", m_Path.c_str(), 1) != 0) {
        std::abort();
    }
}

ScratchDirectory::~ScratchDirectory()
{
    rmdir((m_Path + "/temp").c_str());
    rmdir(m_Path.c_str());
}

} // namespace instructions
