#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace velahost_test {

/// The file's own permissions; nothing when there is no such file.
std::optional<mode_t> GetMode(const std::string& path);

/// The process's file-creation mask.
mode_t GetCreationMask();

/// Sets the process's file-creation mask while it lives.
class CreationMask
{
public:
    explicit CreationMask(mode_t mask);
    CreationMask(const CreationMask&) = delete;
    CreationMask& operator=(const CreationMask&) = delete;
    ~CreationMask();

private:
    mode_t m_Former;
};

/// Descriptors that this process has open.
unsigned int CountDescriptors();

} // namespace velahost_test
