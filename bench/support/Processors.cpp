#include "support/Processors.h"

#include <cstdlib>
#include <sched.h>

namespace bench {

namespace {

// Before the program binds itself to one of them.
const cpu_set_t s_Usable = [] {
    cpu_set_t usable;
    CPU_ZERO(&usable);
    if (sched_getaffinity(0, sizeof(usable), &usable) != 0) {
        abort();
    }
    return usable;
}();

int FirstUsableFrom(int number)
{
    for (; number < CPU_SETSIZE; ++number) {
        if (CPU_ISSET(static_cast<std::size_t>(number), &s_Usable)) {
            return number;
        }
    }
    return -1;
}

} // namespace

void RunOn(Processor processor)
{
    const int first = FirstUsableFrom(0);
    const int second = FirstUsableFrom(first + 1);
    const int chosen = processor == Processor::First || second < 0 ? first : second;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(chosen), &one);
    if (sched_setaffinity(0, sizeof(one), &one) != 0) {
        abort();
    }
}

} // namespace bench
