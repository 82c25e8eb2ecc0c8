#include "FileState.h"

#include <filesystem>
#include <iterator>
#include <sys/stat.h>

namespace velahost_test {

std::optional<mode_t> GetMode(const std::string& path)
{
    struct stat status
    {};
    if (stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return status.st_mode & 07777;
}

mode_t GetCreationMask()
{
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

CreationMask::CreationMask(mode_t mask) : m_Former(umask(mask)) {}

CreationMask::~CreationMask()
{
    umask(m_Former);
}

unsigned int CountDescriptors()
{
    // The listing's own descriptor is always among them.
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return static_cast<unsigned int>(std::distance(begin(descriptors), end(descriptors))) - 1;
}

} // namespace velahost_test
