#include "Processes.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr std::string_view s_LibraryFile = "libvelahost.so";
constexpr std::string_view s_InstallVariable = "KAVRI_VELA_DIR=";

/// Thrown when the process ends meanwhile.
struct Gone
{};

/// What is in a file of /proc; nothing, and the process is marked, when it may not be read.
std::string Read(const fs::path& file, Process& process)
{
    errno = 0;
    std::ifstream in(file, std::ios::binary);
    std::string text;
    try {
        text.assign(std::istreambuf_iterator<char>(in), {});
    } catch (const std::ios_base::failure&) {
        // `errno` tells why.
    }
    if (errno == EACCES || errno == EPERM) {
        process.opaque = true;
    } else if (errno == ENOENT || errno == ESRCH) {
        throw Gone();
    }
    return text;
}

/// The paths in a directory of /proc.
std::set<fs::path> List(const fs::path& directory, Process& process)
{
    std::set<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end;
         it.increment(error)) {
        entries.insert(it->path());
    }
    if (error == std::errc::permission_denied) {
        process.opaque = true;
    }
    return entries;
}

struct Status
{
    std::string name;
    bool ended;
};

Status ReadStatus(const fs::path& directory, Process& process)
{
    // "ID (NAME) STATE ...", where the name may hold anything.
    const std::string text = Read(directory / "stat", process);
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(") ");
    if (open == std::string::npos || close == std::string::npos) {
        throw Gone();
    }
    // Behind the name: state, five numbers, flags. A thread that is ending looks alive until it is
    // done, but what it has can't be read any more.
    std::istringstream fields(text.substr(close + 2));
    char state = 'X';
    std::array<long, 5> others{};
    unsigned long flags = 0;
    fields >> state;
    for (long& other : others) {
        fields >> other;
    }
    fields >> flags;
    constexpr unsigned long ending = 0x4;
    const bool ended = state == 'Z' || state == 'X' || (flags & ending) != 0;
    return {text.substr(open + 1, close - open - 1), ended};
}

/// The directory of a thread that still runs: the first thread may have ended before others.
/// Nothing when all have.
std::optional<fs::path> FindLiveThread(const fs::path& directory, Process& process)
{
    for (const fs::path& thread : List(directory / "task", process)) {
        try {
            if (!ReadStatus(thread, process).ended) {
                return thread;
            }
        } catch (const Gone&) {
            continue; // the thread, not the process
        }
    }
    return std::nullopt;
}

void ReadMappings(const fs::path& directory, Process& process)
{
    std::istringstream lines(Read(directory / "maps", process));
    for (std::string line; std::getline(lines, line);) {
        // "RANGE PERMISSIONS OFFSET DEVICE INODE PATH", the path from the first slash on.
        const std::size_t slash = line.find('/');
        const std::size_t permissions = line.find(' ') + 1;
        if (slash == std::string::npos || permissions + 3 >= line.size()) {
            continue;
        }
        const std::string path = line.substr(slash);
        if (path.substr(path.rfind('/') + 1).starts_with(s_LibraryFile)) {
            process.usesLibrary = true;
        }
        if (line[permissions + 3] == 's') {
            process.sharedFiles.insert(path);
        }
    }
}

void ReadLockFolder(const fs::path& directory, Process& process)
{
    fs::path folder = "/tmp";
    std::istringstream variables(Read(directory / "environ", process));
    for (std::string variable; std::getline(variables, variable, '\0');) {
        if (variable.starts_with(s_InstallVariable)) {
            folder = variable.substr(s_InstallVariable.size()) + "/temp";
            break; // later ones of the name count for nobody
        }
    }
    // Its root and its working directory may be others than ours.
    const fs::path seen = folder.is_absolute() ? directory / "root" / folder.relative_path()
                                               : directory / "cwd" / folder;
    process.lockFolder = Identify(seen);
    // There are no locks where only the last folder is missing; where more is, it may have been
    // moved since.
    std::error_code error;
    const bool missing = fs::status(seen, error).type() == fs::file_type::not_found &&
                         fs::exists(seen.parent_path(), error);
    process.lockFolderHidden = !process.lockFolder && !missing;
}

void ReadDescriptors(const fs::path& directory, Process& process)
{
    for (const fs::path& descriptor : List(directory / "fd", process)) {
        if (const std::optional<FileId> file = Identify(descriptor)) {
            process.openFiles.insert(*file);
        }
    }
}

/// A system call that waits, with the argument that tells for what. Numbers of both word sizes are
/// taken for either: a call that is mistaken for one of these makes an object look used at worst.
struct WaitingCall
{
    long number;
    long multiplexed; ///< The first argument, for the call that stands for several; else -1.
    std::size_t idArgument;
    std::set<int> Process::*waits;
};

constexpr long s_NotMultiplexed = -1;
constexpr long s_Multiplexer32 = 117;
constexpr std::array s_WaitingCalls{
    WaitingCall{70, s_NotMultiplexed, 0, &Process::awaitedQueues},      // msgrcv
    WaitingCall{69, s_NotMultiplexed, 0, &Process::awaitedQueues},      // msgsnd
    WaitingCall{401, s_NotMultiplexed, 0, &Process::awaitedQueues},     // msgrcv at 32 bit
    WaitingCall{400, s_NotMultiplexed, 0, &Process::awaitedQueues},     // msgsnd at 32 bit
    WaitingCall{s_Multiplexer32, 12, 1, &Process::awaitedQueues},       // msgrcv
    WaitingCall{s_Multiplexer32, 11, 1, &Process::awaitedQueues},       // msgsnd
    WaitingCall{65, s_NotMultiplexed, 0, &Process::awaitedSemaphores},  // semop
    WaitingCall{220, s_NotMultiplexed, 0, &Process::awaitedSemaphores}, // semtimedop
    WaitingCall{420, s_NotMultiplexed, 0, &Process::awaitedSemaphores}, // the same at 32 bit
    WaitingCall{s_Multiplexer32, 1, 1, &Process::awaitedSemaphores},    // semop
    WaitingCall{s_Multiplexer32, 4, 1, &Process::awaitedSemaphores},    // semtimedop
};

/// Whether a thread means the objects that we see by its ids: in a container the same ids stand for
/// others. Who doesn't let us know is taken to.
bool SeesTheSameObjects(const fs::path& thread)
{
    std::error_code error;
    const bool same = fs::equivalent(thread / "ns/ipc", "/proc/self/ns/ipc", error);
    return same || error;
}

void ReadWaits(const fs::path& directory, Process& process)
{
    for (const fs::path& thread : List(directory / "task", process)) {
        if (!SeesTheSameObjects(thread)) {
            continue;
        }
        // "NUMBER ARGUMENT...", the arguments in hexadecimal; "running" for a thread that is.
        std::istringstream text;
        try {
            text.str(Read(thread / "syscall", process));
        } catch (const Gone&) {
            continue; // the thread, not the process
        }
        long number = -1;
        std::array<unsigned long long, 2> arguments{};
        text >> number >> std::hex >> arguments[0] >> arguments[1];
        if (!text) {
            continue;
        }
        for (const WaitingCall& call : s_WaitingCalls) {
            const bool matches = number == call.number &&
                                 (call.multiplexed == s_NotMultiplexed ||
                                  arguments[0] == static_cast<unsigned long>(call.multiplexed));
            if (matches) {
                (process.*call.waits).insert(static_cast<int>(arguments[call.idArgument]));
            }
        }
    }
}

Process Look(const fs::path& directory)
{
    Process process;
    process.name = ReadStatus(directory, process).name;
    const std::optional<fs::path> thread = FindLiveThread(directory, process);
    process.zombie = !thread;
    if (thread) {
        ReadMappings(*thread, process);
        if (process.usesLibrary) {
            ReadLockFolder(*thread, process);
        }
        ReadDescriptors(*thread, process);
        ReadWaits(directory, process);
        if ((process.opaque || process.lockFolderHidden) && !FindLiveThread(directory, process)) {
            // It has ended meanwhile: nothing was kept from us.
            Process ended;
            ended.name = process.name;
            ended.zombie = true;
            return ended;
        }
    }
    return process;
}

} // namespace

std::optional<FileId> Identify(const fs::path& path)
{
    struct stat status
    {};
    if (stat(path.c_str(), &status) == -1) {
        return std::nullopt;
    }
    return FileId(status.st_dev, status.st_ino);
}

Processes::Processes(const std::set<pid_t>& unrelated)
{
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        pid_t pid = 0;
        const char* end = name.data() + name.size();
        if (std::from_chars(name.data(), end, pid).ptr != end || pid == getpid()) {
            continue;
        }
        try {
            const Process process = Look(entry.path());
            if (process.opaque && !unrelated.contains(pid)) {
                m_Opaque.push_back(pid);
            }
            if (process.lockFolderHidden && !unrelated.contains(pid)) {
                m_Unplaced.push_back(pid);
            }
            m_All.emplace(pid, process);
        } catch (const Gone&) {
            continue;
        }
    }
}

const Process* Processes::FindAlive(pid_t pid) const
{
    const auto found = m_All.find(pid);
    return found != m_All.end() && !found->second.zombie ? &found->second : nullptr;
}
