#pragma once

#include <string>

namespace instructions {

/// An install directory of this process's own, which goes away with the object.
class ScratchDirectory
{
public:
    ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory();

    const std::string& GetPath() const { return m_Path; }

private:
    std::string m_Path;
};

} // namespace instructions
