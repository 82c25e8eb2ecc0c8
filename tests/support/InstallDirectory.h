#pragma once

#include "TemporaryDirectory.h"

#include <array>
#include <optional>
#include <ostream>
#include <string>
#include <sys/types.h>

namespace velahost_test {

/// What the environment says about the product's install directory, while it lives.
class InstallVariable
{
public:
    /// `std::nullopt`: not set at all.
    explicit InstallVariable(const std::optional<std::string>& value);
    InstallVariable(const InstallVariable&) = delete;
    InstallVariable& operator=(const InstallVariable&) = delete;
    ~InstallVariable();

private:
    static void Set(const std::optional<std::string>& value);

    std::optional<std::string> m_Former;
};

/// An install directory of its own, mode 0755, with its folder "temp", which the environment names
/// while it lives.
class InstallDirectory
{
public:
    InstallDirectory();

    const std::string& GetPath() const { return m_Directory.GetPath(); }
    std::string File(const std::string& name) const { return m_Directory.File(name); }
    void SetMode(mode_t mode) const;

private:
    TemporaryDirectory m_Directory;
    InstallVariable m_Variable;
};

/// What an install directory's mode makes of the permissions of a shared file.
struct PermissionRow
{
    mode_t directory;
    mode_t file;
};

std::ostream& operator<<(std::ostream& out, const PermissionRow& row);

inline constexpr std::array s_PermissionRows{
    PermissionRow{0755, 0644},  PermissionRow{0700, 0600}, PermissionRow{0770, 0660},
    PermissionRow{0777, 0666},  PermissionRow{0750, 0640}, PermissionRow{0711, 0600},
    PermissionRow{01777, 0666}, PermissionRow{0722, 0622}, PermissionRow{0744, 0644}};

} // namespace velahost_test
