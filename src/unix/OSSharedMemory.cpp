#include <VelaHost_OS/SharedMemory.h>

#include "InstallDirectory.h"
#include "NoCancellation.h"
#include "OpenCreationMask.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace VelaHost_OS {

namespace {

/// Keeps the cause of a failure over the clearing up behind it.
class KeptErrno
{
public:
    KeptErrno() : m_Cause(errno) {}
    KeptErrno(const KeptErrno&) = delete;
    KeptErrno& operator=(const KeptErrno&) = delete;
    ~KeptErrno() { errno = m_Cause; }

private:
    int m_Cause;
};

/// Readable zeros that cost address space only: the kernel shows its one page of zeros throughout.
class Zeros
{
public:
    explicit Zeros(unsigned int size)
        : m_Length(std::max(size, 1U)),
          m_Address(mmap(nullptr, m_Length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {}
    Zeros(const Zeros&) = delete;
    Zeros& operator=(const Zeros&) = delete;
    ~Zeros()
    {
        if (IsValid()) {
            const KeptErrno cause;
            munmap(m_Address, m_Length);
        }
    }

    bool IsValid() const { return m_Address != MAP_FAILED; }
    const void* Get() const { return m_Address; }

private:
    std::size_t m_Length; // at least 1: no mapping is empty
    void* m_Address;
};

/// False, with the cause in `errno`, when not all of it has reached the file.
bool WriteThrough(int fd, const void* data, unsigned int size)
{
    const ssize_t written = write(fd, data, size);
    if (written == -1) {
        return false;
    }
    if (static_cast<std::size_t>(written) != size) {
        // A short write gives no reason.
        errno = ENOSPC;
        return false;
    }
    return fsync(fd) == 0;
}

} // namespace

SharedMemory::SharedMemory(const char* name) : m_Size(0), m_Fd(-1), m_Name(name) {}

SharedMemory::~SharedMemory()
{
    if (m_Fd != -1) {
        CloseUncancelled(m_Fd);
    }
}

int SharedMemory::Create(unsigned int size)
{
    // Cancelled half-way, it would leave the mask open, or a part of the file.
    const NoCancellation shield;
    const Zeros zeros(size);
    if (!zeros.IsValid()) {
        return -1;
    }
    {
        OpenCreationMask mask;
        const mode_t permissions = GetSharedFilePermissions();
        ReplaceFile(open(m_Name.c_str(), O_RDWR | O_CREAT | O_EXCL, permissions));
        if (m_Fd == -1) {
            // Deliberate: see the header.
            mask.Leave();
            return -1;
        }
    }
    if (!WriteThrough(m_Fd, zeros.Get(), size)) {
        const KeptErrno cause;
        unlink(m_Name.c_str());
        return -1;
    }
    m_Size = size;
    return 0;
}

int SharedMemory::Open()
{
    ReplaceFile(open(m_Name.c_str(), O_RDWR));
    if (m_Fd == -1) {
        return -1;
    }
    m_Size = static_cast<unsigned int>(lseek(m_Fd, 0, SEEK_END));
    lseek(m_Fd, 0, SEEK_SET);
    return 0;
}

void* SharedMemory::Map(unsigned int length, unsigned int offset)
{
    return mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, m_Fd,
                static_cast<off_t>(offset));
}

void* SharedMemory::Map()
{
    return Map(m_Size, 0);
}

int SharedMemory::Delete()
{
    return unlink(m_Name.c_str());
}

void SharedMemory::ReplaceFile(int fd)
{
    if (m_Fd != -1) {
        const KeptErrno cause;
        CloseUncancelled(m_Fd);
    }
    m_Fd = fd;
    m_Size = 0;
}

} // namespace VelaHost_OS
