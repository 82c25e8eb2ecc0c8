#include <internal/unix/OSSystem.h>

namespace VelaHost_OS {

void ThrowSystemError(const VelaHost_Utility::Exception::Context& site)
{
    throw VelaHost_Utility::SystemException(site, s_SystemCallFailed);
}

} // namespace VelaHost_OS
