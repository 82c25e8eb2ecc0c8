#include "InstallDirectory.h"

#include <cstdlib>
#include <sys/stat.h>

namespace VelaHost_OS {

namespace {

constexpr mode_t s_ReadAndWrite = 0666;

} // namespace

const char* FindInstallDirectory()
{
    return std::getenv("KAVRI_VELA_DIR");
}

mode_t GetSharedFilePermissions()
{
    const char* directory = FindInstallDirectory();
    struct stat status
    {};
    // With 32-bit inode numbers or times this would fail where a file system has larger ones, and
    // the permissions would silently become the widest ones.
    static_assert(sizeof status.st_ino == 8 && sizeof status.st_mtime == 8);
    if (stat(directory != nullptr ? directory : "/usr/vela", &status) != 0) {
        return s_ReadAndWrite;
    }
    return status.st_mode & s_ReadAndWrite;
}

} // namespace VelaHost_OS
