#include "Janitor.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <system_error>
#include <tuple>
#include <unistd.h>

namespace velahost_test::janitor {

namespace {

// A line on the pipe: '+' or '-', the kind, the project id, a blank, the path.
void WaitAndCleanUp(int pipe)
{
    using Entry = std::tuple<char, int, std::string>;
    std::set<Entry> entries;
    std::FILE* lines = fdopen(pipe, "r");
    char* line = nullptr;
    std::size_t capacity = 0;
    ssize_t length = 0;
    while ((length = getline(&line, &capacity, lines)) > 0) {
        const std::string text(line, static_cast<std::size_t>(length - 1));
        const std::size_t blank = text.find(' ');
        Entry entry{text[1], std::stoi(text.substr(2, blank - 2)), text.substr(blank + 1)};
        if (text[0] == '+') {
            entries.insert(std::move(entry));
        } else {
            entries.erase(entry);
        }
    }
    // Directories last: the keys of the others are made from files inside them.
    for (const bool directories : {false, true}) {
        for (const auto& [kind, id, path] : entries) {
            if ((static_cast<Kind>(kind) == Kind::Directory) == directories) {
                Remove(static_cast<Kind>(kind), path, id);
            }
        }
    }
}

int StartJanitor()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        std::abort();
    }
    const pid_t janitor = fork();
    if (janitor == -1) {
        std::abort();
    }
    if (janitor == 0) {
        // A second fork: the janitor must not be a child that the test's own waits could meet.
        if (fork() != 0) {
            _exit(0);
        }
        setsid();
        // Nothing of the program's may stay open because of the janitor, its output pipe above all.
        const int quiet = open("/dev/null", O_RDWR);
        for (int standard = 0; standard <= 2; ++standard) {
            dup2(quiet, standard);
        }
        for (int other = 3; other < 1024; ++other) {
            if (other != ends[0]) {
                close(other);
            }
        }
        WaitAndCleanUp(ends[0]);
        _exit(0);
    }
    close(ends[0]);
    int status = 0;
    waitpid(janitor, &status, 0);
    return ends[1];
}

void Tell(char action, Kind kind, const std::string& what, int projectId)
{
    // A forked child has a janitor of its own: its parent's waits for the parent's death.
    static std::atomic<pid_t> s_Owner{0};
    static std::atomic<int> s_Pipe{-1};
    // Two threads may start one each; either serves.
    if (s_Owner != getpid()) {
        s_Pipe = StartJanitor();
        s_Owner = getpid();
    }
    std::string line;
    line += action;
    line += static_cast<char>(kind);
    line += std::to_string(projectId) + " " + what + "\n";
    if (write(s_Pipe, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        std::abort();
    }
}

} // namespace

void Register(Kind kind, const std::string& what, int projectId)
{
    Tell('+', kind, what, projectId);
}

void Forget(Kind kind, const std::string& what, int projectId)
{
    Tell('-', kind, what, projectId);
}

void Remove(Kind kind, const std::string& what, int projectId)
{
    if (kind == Kind::Directory) {
        std::error_code ignored;
        std::filesystem::remove_all(what, ignored);
        return;
    }
    const key_t key = ftok(what.c_str(), projectId);
    if (key == -1) {
        return;
    }
    if (kind == Kind::MessageQueue) {
        if (const int queue = msgget(key, 0); queue != -1) {
            msgctl(queue, IPC_RMID, nullptr);
        }
    } else {
        if (const int semaphore = semget(key, 0, 0); semaphore != -1) {
            semctl(semaphore, 0, IPC_RMID);
        }
    }
}

} // namespace velahost_test::janitor
