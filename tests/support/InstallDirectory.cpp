#include "InstallDirectory.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>

namespace velahost_test {

namespace {

constexpr const char* s_Variable = "KAVRI_VELA_DIR";

} // namespace

InstallVariable::InstallVariable(const std::optional<std::string>& value)
{
    if (const char* former = std::getenv(s_Variable)) {
        m_Former = former;
    }
    Set(value);
}

InstallVariable::~InstallVariable()
{
    Set(m_Former);
}

void InstallVariable::Set(const std::optional<std::string>& value)
{
    if (value) {
        setenv(s_Variable, value->c_str(), 1);
    } else {
        unsetenv(s_Variable);
    }
}

InstallDirectory::InstallDirectory() : m_Variable(m_Directory.GetPath())
{
    std::filesystem::create_directory(File("temp"));
    SetMode(0755);
}

void InstallDirectory::SetMode(mode_t mode) const
{
    if (chmod(GetPath().c_str(), mode) != 0) {
        throw std::runtime_error("can't change the mode of " + GetPath());
    }
}

std::ostream& operator<<(std::ostream& out, const PermissionRow& row)
{
    char text[32];
    std::snprintf(text, sizeof text, "0%o to 0%o", row.directory, row.file);
    return out << text;
}

} // namespace velahost_test
