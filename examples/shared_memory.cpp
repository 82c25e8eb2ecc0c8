// Memory that processes share through a file: one writes, the other reads.

#include <VelaHost_OS/SharedMemory.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using VelaHost_OS::SharedMemory;

// What both processes know: of fixed layout, and safe to use from both at once.
struct Page
{
    std::atomic<int> answer;
};

int main()
{
    const std::string path = "/tmp/vela-example-" + std::to_string(getpid());
    SharedMemory memory(path.c_str());
    if (memory.Create(4096) != 0) { // zeros; fails when the file exists
        std::perror("Create");
        return 1;
    }

    if (fork() == 0) {
        SharedMemory same(path.c_str());
        if (same.Open() == 0) { // learns the size
            void* map = same.Map();
            if (map != MAP_FAILED) {
                static_cast<Page*>(map)->answer = 42;
            }
        }
        _exit(0);
    }
    wait(nullptr);

    void* map = memory.Map();
    if (map == MAP_FAILED) {
        std::perror("Map");
    } else {
        std::printf("%u bytes, answer %d\n", memory.GetSize(),
                    static_cast<Page*>(map)->answer.load());
        munmap(map, memory.GetSize()); // mappings are the caller's to release
    }
    std::printf("removed: %s\n", memory.Delete() == 0 ? "yes" : "no");
    std::printf("opened again: %s\n", SharedMemory(path.c_str()).Open() == 0 ? "yes" : "no");
}

// Output:
//   4096 bytes, answer 42
//   removed: yes
//   opened again: no
