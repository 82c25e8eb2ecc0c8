// A mutex between processes: parent and child take turns, and a death releases it.

#include <VelaHost_OS/ProcessMutex.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

using VelaHost_OS::ProcessMutex;

static void RunInChild(void (*body)(const char*), const std::string& name)
{
    std::fflush(stdout);
    if (fork() == 0) {
        body(name.c_str());
        std::exit(0);
    }
    wait(nullptr);
}

int main()
{
    // All processes that use this name share the mutex.
    const std::string name = "vela-example-" + std::to_string(getpid());
    ProcessMutex mutex(name.c_str());
    std::printf("parent %s it\n", mutex.Init() == 0 ? "created" : "attached to");

    RunInChild(
        [](const char* sameName) {
            ProcessMutex attached(sameName);
            std::printf("child %s it\n", attached.Init() == 0 ? "created" : "attached to");
            attached.Lock(); // from here to Unlock all signals are blocked
            std::puts("child works alone");
            attached.Unlock();
        },
        name);
    RunInChild(
        [](const char* sameName) {
            ProcessMutex attached(sameName);
            attached.Init();
            attached.Lock(); // never unlocked
            std::puts("child dies with the lock");
        },
        name);

    mutex.Lock();
    std::puts("parent has it all the same");
    mutex.Unlock();
    mutex.Delete(); // by one process, when all have finished
}

// Output:
//   parent created it
//   child attached to it
//   child works alone
//   child dies with the lock
//   parent has it all the same
