#include "TemporaryDirectory.h"

#include "Janitor.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace velahost_test {

TemporaryDirectory::TemporaryDirectory() : m_Path("/tmp/velahost-test-XXXXXX")
{
    if (mkdtemp(m_Path.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    janitor::Register(janitor::Kind::Directory, m_Path);
}

TemporaryDirectory::~TemporaryDirectory()
{
    janitor::Remove(janitor::Kind::Directory, m_Path);
    janitor::Forget(janitor::Kind::Directory, m_Path);
}

std::string TemporaryDirectory::WriteFile(const std::string& name, const std::string& content) const
{
    std::ofstream file(File(name), std::ios::binary);
    if (!(file << content).flush()) {
        throw std::runtime_error("can't write " + File(name));
    }
    return File(name);
}

} // namespace velahost_test
