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
    // In a 32-bit process plain `stat` fails on a file system with 64-bit inode numbers, and the
    // permissions would silently become the widest ones.
    struct stat64 status
    {};
    if (stat64(directory != nullptr ? directory : "/usr/vela", &status) != 0) {
        return s_ReadAndWrite;
    }
    return status.st_mode & s_ReadAndWrite;
}

} // namespace VelaHost_OS
