// The clock of this program stands still, so that counts don't depend on when and how fast it runs.
#include <sys/time.h>

extern "C" int gettimeofday(timeval* now, void*) noexcept
{
    now->tv_sec = 1'700'000'000;
    now->tv_usec = 0;
    return 0;
}
