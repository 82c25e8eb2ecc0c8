#include "support/interpose/Interposed.h"

#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velahost_test::interposed {

constinit Interposed<int(const char*, int, mode_t)> open("open", FailureStyle::MinusOneAndErrno);
constinit Interposed<ssize_t(int, void*, std::size_t)> read("read", FailureStyle::MinusOneAndErrno);
constinit Interposed<ssize_t(int, const void*, std::size_t)> write("write",
                                                                   FailureStyle::MinusOneAndErrno);
constinit Interposed<off_t(int, off_t, int)> lseek("lseek", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int)> fsync("fsync", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(int)> close("close", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(const char*)> unlink("unlink", FailureStyle::MinusOneAndErrno);
constinit Interposed<mode_t(mode_t)> umask("umask", FailureStyle::MinusOneAndErrno);
constinit Interposed<void*(void*, std::size_t, int, int, int, off_t)>
    mmap("mmap", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(void*, std::size_t)> munmap("munmap", FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{&open,  &read,   &write, &lseek, &fsync,
                                         &close, &unlink, &umask, &mmap,  &munmap};

// ThreadSanitizer maps memory for itself before instrumented code may run.
static bool s_Started = false;

[[gnu::constructor]] static void Start()
{
    s_Started = true;
}

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int open(const char* path, int flags, ...)
{
    mode_t permissions = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        std::va_list arguments;
        va_start(arguments, flags);
        permissions = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return interposed::open.Call(path, flags, permissions);
}

ssize_t read(int fd, void* buffer, std::size_t size)
{
    return interposed::read.Call(fd, buffer, size);
}

ssize_t write(int fd, const void* data, std::size_t size)
{
    return interposed::write.Call(fd, data, size);
}

off_t lseek(int fd, off_t offset, int origin) noexcept
{
    return interposed::lseek.Call(fd, offset, origin);
}

int fsync(int fd)
{
    return interposed::fsync.Call(fd);
}

int close(int fd)
{
    return interposed::close.Call(fd);
}

int unlink(const char* path) noexcept
{
    return interposed::unlink.Call(path);
}

mode_t umask(mode_t mask) noexcept
{
    return interposed::umask.Call(mask);
}

[[gnu::no_sanitize_thread]] void* mmap(void* hint, std::size_t length, int protection, int flags,
                                       int fd, off_t offset) noexcept
{
    if (!interposed::s_Started) {
        void* real = dlsym(RTLD_NEXT, "mmap");
        return reinterpret_cast<decltype(mmap)*>(real)(hint, length, protection, flags, fd, offset);
    }
    return interposed::mmap.Call(hint, length, protection, flags, fd, offset);
}

int munmap(void* address, std::size_t length) noexcept
{
    return interposed::munmap.Call(address, length);
}

} // extern "C"
