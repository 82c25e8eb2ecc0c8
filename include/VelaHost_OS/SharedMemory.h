#pragma once

#include <VelaHost_Utility/Export.h>

#include <string>

namespace VelaHost_OS {

/// A region of memory that processes share through a file: one creates it at a fixed size, others
/// open it by the same path, each maps it.
///
/// Nothing here throws for a failed system call: failures are return values, with the cause in
/// `errno`. An object is used by one thread at a time. Mappings belong to the caller and the file
/// to whoever calls `Delete()`: neither goes with the object.
class VELAHOST_EXPORT SharedMemory
{
public:
    /// `name`, not null, is the path of the file, taken as it stands; nothing is opened yet.
    explicit SharedMemory(const char* name);
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    /// Closes the file.
    ~SharedMemory();

    /// Creates the file with `size` bytes of zero and opens it. Returns 0, or -1:
    /// - The file can't be created, for example because it exists; it is left as it was, `GetFd()`
    ///   is -1, `GetSize()` is 0, and the process's file-creation mask stays 0.
    /// - The zeros could not all be written and flushed; the file is removed, the object keeps its
    ///   descriptor, and `GetSize()` is 0. `errno` is `ENOSPC` when only a part of them fitted.
    /// - There is no memory for the zeros; nothing has happened.
    ///
    /// The file gets the read and write permissions of the install directory (`KAVRI_VELA_DIR`,
    /// "/usr/vela" when that is not set), or 0666 when it can't be examined. The file-creation mask
    /// of the whole process is 0 while the file is being opened. A request to cancel the thread
    /// takes effect after the return.
    int Create(unsigned int size);

    /// Opens the existing file, whoever made it, and learns its size. Returns 0, or -1 when it
    /// can't be opened; `GetFd()` is -1 then, and `GetSize()` is 0.
    int Open();

    /// Maps `length` bytes from byte `offset`, a multiple of the page size, for reading and
    /// writing, shared. Returns the new mapping, for the caller to `munmap`, or `MAP_FAILED`.
    void* Map(unsigned int length, unsigned int offset);

    /// The same for the whole region.
    void* Map();

    /// Removes the file; mappings and open descriptors stay usable. Returns 0, or -1 when it could
    /// not be removed.
    int Delete();

    /// Bytes in the region; 0 while the object has none.
    unsigned int GetSize() const { return m_Size; }
    /// The object's own descriptor of the file; -1 while none is open.
    int GetFd() const { return m_Fd; }
    /// The path, as it was given.
    const std::string& GetName() const { return m_Name; }

private:
    void ReplaceFile(int fd);

    unsigned int m_Size;
    int m_Fd;
    std::string m_Name;
};

} // namespace VelaHost_OS
