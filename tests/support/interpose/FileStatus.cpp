#include "support/interpose/FileStatus.h"

#include <sys/stat.h>

namespace velahost_test {

void SetMode(FileStatus* status, mode_t mode)
{
    reinterpret_cast<struct ::stat*>(status)->st_mode = mode;
}

namespace interposed {

constinit Interposed<int(const char*, FileStatus*)>
    stat("stat", FailureStyle::MinusOneAndErrno, sizeof(void*) == 4 ? "__stat64_time64" : "stat");

static const Registration s_Registration{&stat};

} // namespace interposed

} // namespace velahost_test

extern "C" int stat(const char* path, struct stat* status) noexcept
{
    using velahost_test::FileStatus;
    return velahost_test::interposed::stat.Call(path, reinterpret_cast<FileStatus*>(status));
}
