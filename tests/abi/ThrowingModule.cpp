#include <VelaHost_Utility/Exception.h>

using namespace VelaHost_Utility;

namespace {

void Quiet(const Exception&) {}

constexpr Exception::Context s_Site(nullptr, "src/Module", 5, Quiet);

} // namespace

/// Throws the exception number `which` of the family.
extern "C" VELAHOST_EXPORT void ThrowFromModule(int which)
{
    switch (which) {
    case 0:
        throw BadParmException(s_Site, 1, "%d", 2);
    case 1:
        throw NotImplementedException(s_Site, "x");
    case 2:
        throw FeatureNotSupportedException(s_Site, "x");
    case 3:
        throw BadStateException(s_Site, "%d", 2);
    default:
        throw SystemException(s_Site, 0x2002);
    }
}

/// Whether `action` throws a `SystemException`, as this module sees it.
extern "C" VELAHOST_EXPORT bool CatchInModule(void (*action)())
{
    try {
        action();
    } catch (const SystemException&) {
        return true;
    } catch (const Exception&) {
        return false;
    }
    return false;
}
