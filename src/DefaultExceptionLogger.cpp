#include "PlumeTrace.h"

#include <VelaHost_Utility/Exception.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <dlfcn.h>
#include <string>

namespace VelaHost_Utility {

namespace {

// Two threads that log their first exceptions at once may both look the label up; each stores what
// it got.
std::atomic<long> s_Plume_EXCE_LabelH{0};

/// The trace library's three functions; without one of them it counts as none.
struct PlumeFunctions
{
    long (*getLabelHandle)(const char*, long*) = nullptr;
    long (*getModuleHandle)(const char*, long*) = nullptr;
    void (*trace)(long, long, const char*) = nullptr;

    bool IsComplete() const { return getLabelHandle && getModuleHandle && trace; }
};

template <typename Function>
Function* FindFunction(void* library, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(library, name));
}

/// What the process itself links or defines, else what one attempt to load the library gives.
PlumeFunctions FindPlumeFunctions()
{
    const PlumeFunctions linked{&PlumeGetLabelHandle, &PlumeGetModuleHandle,
                                &PlumeTraceInterface::PlumeTrace};
    if (linked.IsComplete()) {
        return linked;
    }
    void* library = dlopen("libplume.so", RTLD_LAZY);
    if (library == nullptr) {
        return {};
    }
    const PlumeFunctions loaded{
        FindFunction<long(const char*, long*)>(library, "PlumeGetLabelHandle"),
        FindFunction<long(const char*, long*)>(library, "PlumeGetModuleHandle"),
        // The member function's name as the compiler spells it.
        FindFunction<void(long, long, const char*)>(library,
                                                    "_ZN19PlumeTraceInterface10PlumeTraceEllPKc")};
    if (!loaded.IsComplete()) {
        dlclose(library);
        return {};
    }
    return loaded;
}

/// True when the trace library took the line.
bool Trace(const Exception& e, const std::string& line)
{
    // The language makes the search happen once, whichever thread comes first.
    static const PlumeFunctions plume = FindPlumeFunctions();
    if (!plume.IsComplete()) {
        return false;
    }
    long label = s_Plume_EXCE_LabelH.load(std::memory_order_relaxed);
    if (label == 0) {
        plume.getLabelHandle("Exception", &label);
        // A look-up that failed must not wipe out the label that another thread just got.
        if (label != 0) {
            s_Plume_EXCE_LabelH.store(label, std::memory_order_relaxed);
        }
    }
    const char* component = e.GetContext().m_CompName;
    long module = 0;
    plume.getModuleHandle(component != nullptr ? component : "VelaHost", &module);
    if (module == 0) {
        return false;
    }
    plume.trace(module, label, line.c_str());
    return true;
}

} // namespace

void DefaultExceptionLogger(const Exception& e)
{
    const int callersErrno = errno;
    const Exception::Context& context = e.GetContext();
    const std::string line =
        e.GetText() + " at " + context.m_File + ":" + std::to_string(context.m_Line);
    if (!Trace(e, line)) {
        std::puts(line.c_str());
        // A process that aborts on this exception must not take its line along.
        std::fflush(stdout);
    }
    errno = callersErrno;
}

} // namespace VelaHost_Utility
