// Threads, and a value that each of them has for itself.

#include <VelaHost_OS/Thread.h>
#include <VelaHost_OS/ThreadLocalType.h>

#include <cerrno>
#include <cstdio>

using namespace VelaHost_OS;

// Each thread's own counter, made at its first use in that thread.
class Counter : public ThreadLocalType
{
public:
    int& Get() { return *static_cast<int*>(GetValue()); }

    // Before the thread ends: a value left behind would be taken for a ThreadLocalType.
    void Finish()
    {
        Destructor();
        SetValue(nullptr);
    }

    void* CreateValue() override { return new int(0); }
    void DestroyValue(void* value) override { delete static_cast<int*>(value); }
    void DetachThread() override {}
};

static Counter s_Counter;

static void Count(void* result)
{
    for (int i = 0; i < 1000; ++i) {
        ++s_Counter.Get();
    }
    *static_cast<int*>(result) = s_Counter.Get();
    s_Counter.Finish();
}

int main()
{
    s_Counter.Get() = 5;
    int results[2] = {};
    unsigned long threads[2] = {};
    for (int i = 0; i < 2; ++i) {
        CreateThread(Count, 0, &results[i], &threads[i]);
    }
    for (const unsigned long thread : threads) {
        JoinThread(thread); // or the thread's remains are never freed
    }
    std::printf("threads counted %d and %d, main has %d\n", results[0], results[1],
                s_Counter.Get());
    s_Counter.Finish();
    std::printf("thread 0: %s\n", JoinThread(0) == ESRCH ? "no such thread" : "joined");
}

// Output:
//   threads counted 1000 and 1000, main has 5
//   thread 0: no such thread
