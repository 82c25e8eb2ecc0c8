#include <VelaHost_Utility/RefCount.h>

namespace VelaHost_Utility {

RefCount::RefCount() noexcept : m_RefCount(0) {}

RefCount::RefCount(const RefCount& /*other*/) noexcept : RefCount() {}

RefCount& RefCount::operator=(const RefCount& /*other*/) noexcept
{
    return *this;
}

RefCount::~RefCount() noexcept(false) = default;

} // namespace VelaHost_Utility
