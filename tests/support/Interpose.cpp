#include "Interpose.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace velahost_test {

namespace {

std::vector<InterposedBase*>& Registered()
{
    static std::vector<InterposedBase*> s_Registered;
    return s_Registered;
}

int CurrentThread()
{
    return static_cast<int>(syscall(SYS_gettid));
}

bool IsInCLibrary(void* function)
{
    Dl_info where{};
    Dl_info cLibrary{};
    return dladdr(function, &where) != 0 &&
           dladdr(reinterpret_cast<void*>(&dlvsym), &cLibrary) != 0 &&
           where.dli_fbase == cLibrary.dli_fbase;
}

/// RTLD_NEXT prefers the version that the C library keeps for the oldest programs; this is the one
/// that programs are linked with today. Newest first, where functions of several versions have
/// their last one.
void* CurrentVersion(const char* name, void* oldest)
{
    for (const char* version :
         {"GLIBC_2.34", "GLIBC_2.28", "GLIBC_2.3.2", "GLIBC_2.2", "GLIBC_2.1"}) {
        if (void* current = dlvsym(RTLD_NEXT, name, version)) {
            return current;
        }
    }
    return oldest;
}

[[noreturn]] void GiveUp(const char* problem, std::string_view name)
{
    std::fprintf(stderr, "%s: %.*s\n", problem, static_cast<int>(name.size()), name.data());
    std::abort();
}

} // namespace

Registration::Registration(std::initializer_list<InterposedBase*> functions)
{
    Registered().insert(Registered().end(), functions);
}

std::vector<InterposedBase*> InterposedBase::All()
{
    return Registered();
}

InterposedBase& InterposedBase::Find(std::string_view name)
{
    for (InterposedBase* function : Registered()) {
        if (name == function->m_Name) {
            return *function;
        }
    }
    GiveUp("not interposed in this program", name);
}

int InterposedBase::NextError()
{
    if (!m_Armed.load(std::memory_order_acquire)) {
        return 0;
    }
    const int onlyThread = m_OnlyThread.load();
    if (onlyThread != 0 && onlyThread != CurrentThread()) {
        return 0;
    }
    const unsigned int call = ++m_Calls;
    return call >= m_First && call <= m_Last ? m_Error.load() : 0;
}

void* InterposedBase::FindReal(const char* symbol)
{
    void* next = dlsym(RTLD_NEXT, symbol);
    if (next == nullptr) {
        GiveUp("no such function to forward to", symbol);
    }
    return IsInCLibrary(next) ? CurrentVersion(symbol, next) : next;
}

bool& InterposedBase::InsideHook()
{
    static thread_local bool s_Inside = false;
    return s_Inside;
}

FailingCall::FailingCall(std::string_view function, int error, unsigned int first,
                         unsigned int count, Scope scope)
    : m_Function(InterposedBase::Find(function))
{
    if (m_Function.m_Armed.load()) {
        GiveUp("already armed", function);
    }
    m_Function.m_OnlyThread = scope == Scope::CallingThread ? CurrentThread() : 0;
    m_Function.m_Calls = 0;
    m_Function.m_First = first;
    m_Function.m_Last = count > forGood - first ? forGood : first + count - 1;
    m_Function.m_Error = error;
    m_Function.m_Armed.store(true, std::memory_order_release);
}

FailingCall::~FailingCall()
{
    m_Function.m_Armed = false;
}

bool FailingCall::WasHit() const
{
    return m_Function.m_Calls >= m_Function.m_First;
}

} // namespace velahost_test
