#pragma once

#include <sys/types.h>

namespace VelaHost_OS {

/// The product's install directory as the environment names it, null when it does not.
const char* FindInstallDirectory();

/// The permissions of a file that the product's processes share: the read and write bits of the
/// install directory, "/usr/vela" when the environment names none; 0666 when it can't be examined.
mode_t GetSharedFilePermissions();

} // namespace VelaHost_OS
