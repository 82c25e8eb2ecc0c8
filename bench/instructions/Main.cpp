// Without an argument tells the names of the scenarios, one a line; with a name runs that scenario
// and tells on the standard error stream how many operations it counted. check.py runs it.
#include "Counted.h"
#include "Scenarios.h"

#include <cstdio>
#include <string_view>

using namespace instructions;

extern "C" void CountedPart(void (*part)(void*), void* context)
{
    part(context);
    // Not a jump: the function must be left.
    asm volatile("");
}

static constexpr Scenario s_Scenarios[] = {
    {"thread-mutex/lock+unlock", LockThreadMutex},
    {"lockable/lock+unlock", LockLockable},
    {"process-mutex/lock+unlock", LockProcessMutex},
    {"event/set+reset", SetEvent},
    {"event/wait-set", WaitForSetEvent},
    {"timer/start+stop-same-expiry", StartAndStopTimersOfOneExpiry},
    {"timer/start+stop-other-expiries", StartAndStopTimersOfManyExpiries},
    {"timer/fire", FireTimers},
    {"properties/load-flat", LoadFlatFile},
    {"properties/load-sectioned", LoadSectionedFile},
    {"properties/look-up-number", LookUpNumber},
    {"properties/look-up-text", LookUpText},
    {"properties/look-up-missing", LookUpMissingName},
    {"queue-transport/dispatch", DispatchQueueMessage},
    {"queue-transport/send", SendQueueMessage},
    {"socket-transport/dispatch", DispatchSocketFrame},
    {"socket-transport/send", SendSocketFrame},
    {"smart-pointer/copy+release", CopySmartPointer},
    {"exception/throw+log", ThrowAndLog},
    {"text/chop", ChopText},
    {"text/strmaxcpy", CopyText},
    {"text/strupr", RaiseText},
};

int main(int argc, char** argv)
{
    for (const Scenario& scenario : s_Scenarios) {
        if (argc < 2) {
            std::puts(scenario.name);
        } else if (std::string_view(argv[1]) == scenario.name) {
            std::fprintf(stderr, "%d\n", scenario.run());
        }
    }
}
