#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

// A stand-in for the trace library. It appends a line for every call to the file that PLUME_RECORD
// names; PLUME_LABEL and PLUME_MODULE give the handles that it hands out, 0 without them. What a
// function returns is always an error, which callers ignore. A library that lacks one function is
// built by defining PLUME_LACKS_LABEL, PLUME_LACKS_MODULE or PLUME_LACKS_TRACE.

namespace {

[[maybe_unused]] constexpr long s_IgnoredError = -5;

[[maybe_unused]] void Record(const std::string& line)
{
    const char* path = std::getenv("PLUME_RECORD");
    const int file = path != nullptr ? open(path, O_WRONLY | O_CREAT | O_APPEND, 0600) : -1;
    const std::string whole = line + "\n";
    if (file == -1 || write(file, whole.data(), whole.size()) == -1) {
        std::abort();
    }
    close(file);
}

[[maybe_unused]] long HandleFrom(const char* variable)
{
    const char* value = std::getenv(variable);
    return value != nullptr ? std::atol(value) : 0;
}

} // namespace

#ifndef PLUME_LACKS_LABEL
extern "C" long PlumeGetLabelHandle(const char* label, long* handle)
{
    *handle = HandleFrom("PLUME_LABEL");
    Record(std::string("label ") + label);
    return s_IgnoredError;
}
#endif

#ifndef PLUME_LACKS_MODULE
extern "C" long PlumeGetModuleHandle(const char* module, long* handle)
{
    *handle = HandleFrom("PLUME_MODULE");
    Record(std::string("module ") + module);
    return s_IgnoredError;
}
#endif

#ifndef PLUME_LACKS_TRACE
class PlumeTraceInterface
{
public:
    static void PlumeTrace(long module, long label, const char* line);
};

void PlumeTraceInterface::PlumeTrace(long module, long label, const char* line)
{
    Record("trace " + std::to_string(module) + " " + std::to_string(label) + " " + line);
}
#endif
