#include <VelaHost_OS/ThreadLocalType.h>
#include <VelaHost_Utility/Exception.h>
#include <VelaHost_Utility/Properties.h>

using namespace VelaHost_Utility;
using VelaHost_OS::ThreadLocalType;

namespace {

class Local final : public ThreadLocalType
{
public:
    void DestroyValue(void* /*value*/) override {}
    void* CreateValue() override { return nullptr; }
    void DetachThread() override {}
};

/// Such a program may have an entry of its own for a library's function, and take that for the
/// function's address.
bool SharesTheLogger()
{
    Properties store;
    store.AddProperty("name", 1U);
    try {
        store.AddProperty("name", 2U);
    } catch (const PropertiesException& e) {
        return e.GetContext().m_Logger == &DefaultExceptionLogger;
    }
    return false;
}

/// And it has the library's variables in its own memory.
bool SharesTheRegistry()
{
    // Never destroyed: that would be an error without a key.
    const auto* local = new Local;
    return ThreadLocalType::s_AllTypes == local && ThreadLocalType::s_Mutex.GetLockCount() == 1;
}

} // namespace

/// A program that lies at a fixed address.
int main()
{
    return SharesTheLogger() && SharesTheRegistry() ? 0 : 1;
}
