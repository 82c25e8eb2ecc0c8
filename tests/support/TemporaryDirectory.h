#pragma once

#include <string>

namespace velahost_test {

/// A directory of its own under /tmp, removed with all its contents at destruction and also when
/// the test program is killed.
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory();

    const std::string& GetPath() const { return m_Path; }
    /// The path of `name` inside it; nothing is created.
    std::string File(const std::string& name) const { return m_Path + "/" + name; }
    /// Creates `name` with that content and returns its path.
    std::string WriteFile(const std::string& name, const std::string& content) const;

private:
    std::string m_Path;
};

} // namespace velahost_test
