// A manual-reset event: one Set releases every waiter, until Reset.

#include <VelaHost_OS/Thread.h>
#include <VelaHost_OS/ThreadEvent.h>

#include <atomic>
#include <cstdio>

using VelaHost_OS::ThreadEvent;

struct Start
{
    ThreadEvent event;
    std::atomic<int> released{0};
};

static void Wait(void* argument)
{
    auto& start = *static_cast<Start*>(argument);
    // Whole seconds are never refused; and who was just about to sleep when the event was set
    // sees it in the next round.
    while (!start.event.Wait(1000) && !start.event.IsSet()) {
    }
    ++start.released;
}

int main()
{
    Start start;
    unsigned long threads[3];
    for (unsigned long& thread : threads) {
        VelaHost_OS::CreateThread(Wait, 0, &start, &thread);
    }
    start.event.Set();
    for (const unsigned long thread : threads) {
        VelaHost_OS::JoinThread(thread);
    }
    std::printf("released %d threads\n", start.released.load());

    std::printf("still set: %s\n", start.event.Wait(0) ? "yes" : "no");
    start.event.Reset();
    std::printf("after Reset: %s\n", start.event.IsSet() ? "set" : "clear");
    std::printf("a wait of 1 s: %s\n", start.event.Wait(1000) ? "set" : "time is up");
}

// Output:
//   released 3 threads
//   still set: yes
//   after Reset: clear
//   a wait of 1 s: time is up
