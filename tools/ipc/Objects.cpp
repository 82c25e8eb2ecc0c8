#include "Objects.h"

#include <VelaHost_OS/ProcessMutex.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using namespace velahost_tools;

constexpr std::string_view s_QueuePrefix = "queue:";
constexpr std::string_view s_LockPrefix = "lock:";
constexpr std::string_view s_SemaphorePrefix = "semaphore:";
constexpr std::string_view s_MemoryPrefix = "memory:";

/// The mode that the library's queues have, the execute bit included, and hardly any other.
constexpr unsigned int s_QueueMode = 0766;
constexpr unsigned int s_ModeBits = 0777;
constexpr unsigned int s_ExecuteBits = 0111;
/// What keys of process mutexes are made with.
constexpr int s_LockProject = 0;
constexpr char s_ReadyMark = 1;

/// What `semctl` takes last; the C library leaves its declaration to the caller.
union SemaphoreArgument {
    int value;
    semid_ds* state;
    seminfo* info;
};

void Check(int result)
{
    if (result == -1) {
        throw std::system_error(errno, std::generic_category());
    }
}

std::string Octal(unsigned int mode)
{
    char text[16];
    std::snprintf(text, sizeof text, "0%o", mode & s_ModeBits);
    return text;
}

std::string Hexadecimal(key_t key)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned int>(key));
    return text;
}

std::string UserName(uid_t uid)
{
    const passwd* entry = getpwuid(uid);
    return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

/// ISO 8601, universal time; null for never.
Json Time(std::time_t time)
{
    if (time == 0) {
        return {};
    }
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string Count(unsigned long long count, const std::string& what)
{
    const char* plural = what.ends_with('s') ? "es" : "s";
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : plural);
}

/// "2 processes WHAT: 4711 4712"
std::string NameAll(const std::vector<pid_t>& pids, const std::string& what)
{
    std::string text = Count(pids.size(), "process") + ' ' + what + ':';
    for (const pid_t pid : pids) {
        text += ' ' + std::to_string(pid);
    }
    return text;
}

/// Collects the living processes that have to do with an object, each once.
class UserList
{
public:
    UserList(const Processes& processes, Object& object) : m_Processes(processes), m_Object(object)
    {}

    void Add(pid_t pid, const char* role)
    {
        const Process* process = m_Processes.FindAlive(pid);
        const bool known = std::any_of(m_Object.users.begin(), m_Object.users.end(),
                                       [pid](const User& user) { return user.pid == pid; });
        if (process != nullptr && !known) {
            m_Object.users.push_back({pid, process->name, role});
        }
    }

    template <typename Predicate>
    void AddAll(Predicate predicate, const char* role)
    {
        for (const auto& [pid, process] : m_Processes.GetAll()) {
            if (predicate(process)) {
                Add(pid, role);
            }
        }
    }

    /// Decides on the state, when all are in.
    void Conclude()
    {
        const std::vector<pid_t>& opaque = m_Processes.GetOpaque();
        if (!m_Object.users.empty()) {
            m_Object.state = State::Used;
        } else if (opaque.empty()) {
            m_Object.state = State::Abandoned;
        } else {
            m_Object.state = State::Uncertain;
            m_Object.reason = NameAll(opaque, "may not be looked into");
        }
    }

private:
    const Processes& m_Processes;
    Object& m_Object;
};

Object DescribeQueue(const Processes& processes, int id, const msqid_ds& queue)
{
    Object object;
    object.handle = std::string(s_QueuePrefix) + std::to_string(id);
    UserList users(processes, object);
    users.AddAll([id](const Process& process) { return process.awaitedQueues.contains(id); },
                 "waiting");
    users.Add(queue.msg_lrpid, "last receiver");
    users.Add(queue.msg_lspid, "last sender");
    users.Conclude();
    object.summary = Count(queue.msg_qnum, "message");
    object.details = {{"id", id},
                      {"key", Hexadecimal(queue.msg_perm.__key)},
                      {"owner", UserName(queue.msg_perm.uid)},
                      {"mode", Octal(queue.msg_perm.mode)},
                      {"messages", queue.msg_qnum},
                      {"bytes", queue.__msg_cbytes},
                      {"maxBytes", queue.msg_qbytes},
                      {"lastSender", queue.msg_lspid},
                      {"lastReceiver", queue.msg_lrpid},
                      {"sent", Time(queue.msg_stime)},
                      {"received", Time(queue.msg_rtime)},
                      {"changed", Time(queue.msg_ctime)}};
    object.lastUsed = std::max({queue.msg_stime, queue.msg_rtime, queue.msg_ctime});
    object.remove = [id] { Check(msgctl(id, IPC_RMID, nullptr)); };
    return object;
}

/// A semaphore set that may be a process mutex.
struct Semaphore
{
    int id;
    semid_ds state;
};

std::vector<Semaphore> FindSemaphores()
{
    std::vector<Semaphore> semaphores;
    seminfo info{};
    SemaphoreArgument argument{};
    argument.info = &info;
    const int highest = semctl(0, 0, SEM_INFO, argument);
    for (int index = 0; index <= highest; ++index) {
        Semaphore semaphore{-1, {}};
        argument.state = &semaphore.state;
        semaphore.id = semctl(index, 0, SEM_STAT_ANY, argument);
        if (semaphore.id != -1 && semaphore.state.sem_nsems == 1) {
            semaphores.push_back(semaphore);
        }
    }
    return semaphores;
}

/// What a process mutex consists of.
struct Lock
{
    std::string name;
    fs::path path;
    struct stat file;
    bool marked;
    std::optional<Semaphore> semaphore;
};

fs::path LockDirectory()
{
    return VelaHost_OS::ProcessMutex("").GetPath();
}

std::optional<Semaphore> FindSemaphoreOf(const fs::path& lockFile)
{
    const key_t key = ftok(lockFile.c_str(), s_LockProject);
    for (const Semaphore& semaphore : FindSemaphores()) {
        if (semaphore.state.sem_perm.__key == key && key != IPC_PRIVATE) {
            return semaphore;
        }
    }
    return std::nullopt;
}

/// Nothing for a file that is not a lock's.
std::optional<Lock> FindLock(const std::string& name)
{
    Lock lock{name, VelaHost_OS::ProcessMutex(name.c_str()).GetPath(), {}, false, std::nullopt};
    if (lstat(lock.path.c_str(), &lock.file) == -1 || !S_ISREG(lock.file.st_mode) ||
        (lock.file.st_mode & s_ExecuteBits) != 0 || lock.file.st_size > 1) {
        return std::nullopt;
    }
    lock.marked = lock.file.st_size == 1;
    if (lock.marked && std::ifstream(lock.path).get() != s_ReadyMark) {
        return std::nullopt;
    }
    lock.semaphore = FindSemaphoreOf(lock.path);
    // In the folder that everybody uses for everything the content is not proof enough.
    const bool foldersOwn = std::getenv("KAVRI_VELA_DIR") != nullptr;
    return lock.semaphore || foldersOwn ? std::optional(lock) : std::nullopt;
}

/// What `semctl` tells about the only semaphore of a set; null when it may not be known.
Json Ask(int id, int command)
{
    const int answer = semctl(id, 0, command);
    return answer != -1 ? Json(answer) : Json();
}

void DescribeSemaphore(const Semaphore& semaphore, Json& details)
{
    details["semaphore"] = semaphore.id;
    details["key"] = Hexadecimal(semaphore.state.sem_perm.__key);
    details["value"] = Ask(semaphore.id, GETVAL);
    details["waiting"] = Ask(semaphore.id, GETNCNT);
    details["lastProcess"] = Ask(semaphore.id, GETPID);
    details["used"] = Time(semaphore.state.sem_otime);
}

Object DescribeLock(const Processes& processes, const Lock& lock)
{
    Object object;
    object.handle = std::string(s_LockPrefix) + lock.name;
    object.details = {{"path", lock.path},
                      {"owner", UserName(lock.file.st_uid)},
                      {"mode", Octal(lock.file.st_mode)},
                      {"marked", lock.marked}};
    object.lastUsed = lock.file.st_mtime;
    UserList users(processes, object);
    const FileId file(lock.file.st_dev, lock.file.st_ino);
    users.AddAll([&file](const Process& process) { return process.openFiles.contains(file); },
                 "has the file open");
    if (lock.semaphore) {
        const int id = lock.semaphore->id;
        DescribeSemaphore(*lock.semaphore, object.details);
        object.lastUsed = std::max(
            {object.lastUsed, lock.semaphore->state.sem_otime, lock.semaphore->state.sem_ctime});
        users.AddAll(
            [id](const Process& process) { return process.awaitedSemaphores.contains(id); },
            "waiting");
        users.Add(semctl(id, 0, GETPID), "last to lock or unlock");
    } else {
        object.details["semaphore"] = nullptr;
    }
    // Whoever attached to the mutex long ago left no trace but these.
    const std::optional<FileId> folder = Identify(LockDirectory());
    users.AddAll(
        [&folder](const Process& process) {
            return process.lockFolder && process.lockFolder == folder;
        },
        "of the same installation");
    users.Conclude();
    if (object.state == State::Abandoned && !processes.GetUnplaced().empty()) {
        object.state = State::Uncertain;
        object.reason = NameAll(processes.GetUnplaced(), "may have locks anywhere");
    }
    if (object.state == State::Abandoned && !lock.marked && !lock.semaphore) {
        object.state = State::Uncertain;
        object.reason = "nothing proves that the empty file is a lock";
    }
    object.summary = lock.marked ? "ready" : "not marked as ready";
    if (!lock.semaphore) {
        object.summary += ", no semaphore";
    } else if (object.details["value"] == 0) {
        object.summary += ", held";
    }
    object.remove = [lock] {
        if (lock.semaphore) {
            Check(semctl(lock.semaphore->id, 0, IPC_RMID));
        }
        Check(unlink(lock.path.c_str()));
    };
    return object;
}

std::vector<Object> FindQueues(const Processes& processes)
{
    std::vector<Object> queues;
    msginfo info{};
    const int highest = msgctl(0, MSG_INFO, reinterpret_cast<msqid_ds*>(&info));
    for (int index = 0; index <= highest; ++index) {
        msqid_ds queue{};
        const int id = msgctl(index, MSG_STAT_ANY, &queue);
        if (id != -1 && (queue.msg_perm.mode & s_ModeBits) == s_QueueMode) {
            queues.push_back(DescribeQueue(processes, id, queue));
        }
    }
    return queues;
}

std::vector<Lock> FindLocks()
{
    std::vector<Lock> locks;
    std::error_code error;
    for (fs::directory_iterator it(LockDirectory(), error), end; !error && it != end;
         it.increment(error)) {
        if (std::optional<Lock> lock = FindLock(it->path().filename())) {
            locks.push_back(*std::move(lock));
        }
    }
    std::sort(locks.begin(), locks.end(),
              [](const Lock& left, const Lock& right) { return left.name < right.name; });
    return locks;
}

/// Semaphores that look like those of process mutexes in the lock directory but belong to none of
/// `locks`. Nothing proves that they are, so they are never removed.
std::vector<Object> FindStraySemaphores(const std::vector<Lock>& locks)
{
    constexpr int deviceShift = 16;
    constexpr unsigned int deviceBits = 0xff;
    std::vector<Object> strays;
    struct stat directory
    {};
    if (stat(LockDirectory().c_str(), &directory) == -1) {
        return strays;
    }
    // What `ftok` makes of a file on this device.
    const unsigned int upperHalf = static_cast<unsigned int>(directory.st_dev) & deviceBits;
    for (const Semaphore& semaphore : FindSemaphores()) {
        const auto key = static_cast<unsigned int>(semaphore.state.sem_perm.__key);
        const bool looksRight = key != IPC_PRIVATE && key >> deviceShift == upperHalf &&
                                (semaphore.state.sem_perm.mode & s_ExecuteBits) == 0;
        const bool hasLock =
            std::any_of(locks.begin(), locks.end(), [&semaphore](const Lock& lock) {
                return lock.semaphore && lock.semaphore->id == semaphore.id;
            });
        if (looksRight && !hasLock) {
            Object object;
            object.handle = std::string(s_SemaphorePrefix) + std::to_string(semaphore.id);
            object.reason = "no lock file tells whose it is";
            object.summary = "no lock file";
            object.details = {{"owner", UserName(semaphore.state.sem_perm.uid)},
                              {"mode", Octal(semaphore.state.sem_perm.mode)}};
            DescribeSemaphore(semaphore, object.details);
            strays.push_back(std::move(object));
        }
    }
    return strays;
}

Object DescribeMemory(const Processes& processes, const fs::path& path, const struct stat& file)
{
    Object object;
    object.handle = std::string(s_MemoryPrefix) + path.string();
    UserList users(processes, object);
    users.AddAll(
        [&path](const Process& process) { return process.sharedFiles.contains(path.string()); },
        "has it mapped");
    const FileId identity(file.st_dev, file.st_ino);
    users.AddAll(
        [&identity](const Process& process) { return process.openFiles.contains(identity); },
        "has it open");
    users.Conclude();
    object.summary = Count(static_cast<unsigned long long>(file.st_size), "byte");
    object.details = {{"path", path},
                      {"owner", UserName(file.st_uid)},
                      {"mode", Octal(file.st_mode)},
                      {"size", file.st_size},
                      {"changed", Time(file.st_mtime)}};
    object.lastUsed = file.st_mtime;
    object.remove = [path] { Check(unlink(path.c_str())); };
    return object;
}

std::optional<Object> FindMemory(const Processes& processes, const std::string& name)
{
    std::error_code error;
    const fs::path path = fs::canonical(name, error);
    struct stat file
    {};
    if (error || stat(path.c_str(), &file) == -1 || !S_ISREG(file.st_mode)) {
        return std::nullopt;
    }
    return DescribeMemory(processes, path, file);
}

std::vector<Object> FindMappedMemory(const Processes& processes)
{
    std::set<std::string> paths;
    for (const auto& [pid, process] : processes.GetAll()) {
        if (process.usesLibrary) {
            paths.insert(process.sharedFiles.begin(), process.sharedFiles.end());
        }
    }
    std::vector<Object> files;
    for (const std::string& path : paths) {
        if (std::optional<Object> file = FindMemory(processes, path)) {
            files.push_back(*std::move(file));
        }
    }
    return files;
}

/// What `handle` says behind `prefix`; nothing when it has another one.
std::optional<std::string> After(std::string_view prefix, const std::string& handle)
{
    return handle.starts_with(prefix) ? std::optional(handle.substr(prefix.size())) : std::nullopt;
}

/// The queue's identifier, -1 when there is none.
int FindQueueId(const std::string& name)
{
    int id = -1;
    const char* end = name.data() + name.size();
    if (std::from_chars(name.data(), end, id).ptr == end) {
        return id;
    }
    const std::size_t colon = name.rfind(':');
    if (colon == std::string::npos || colon + 2 != name.size()) {
        throw ToolError(CannotAnswer, "neither a queue's number nor PATH:ID: " + name);
    }
    const key_t key = ftok(name.substr(0, colon).c_str(), name.back());
    return key != -1 ? msgget(key, 0) : -1;
}

/// The one of `objects` with that handle.
std::optional<Object> Pick(const std::vector<Object>& objects, const std::string& handle)
{
    const auto found =
        std::find_if(objects.begin(), objects.end(),
                     [&handle](const Object& object) { return object.handle == handle; });
    return found != objects.end() ? std::optional(*found) : std::nullopt;
}

} // namespace

const char* GetName(State state)
{
    constexpr std::array names{"used", "abandoned", "uncertain"};
    return names[static_cast<std::size_t>(state)];
}

std::vector<Object> FindObjects(const Processes& processes)
{
    std::vector<Object> objects = FindQueues(processes);
    const std::vector<Lock> locks = FindLocks();
    for (const Lock& lock : locks) {
        objects.push_back(DescribeLock(processes, lock));
    }
    for (std::vector<Object>& more :
         std::array{FindStraySemaphores(locks), FindMappedMemory(processes)}) {
        std::move(more.begin(), more.end(), std::back_inserter(objects));
    }
    return objects;
}

std::optional<Object> FindObject(const Processes& processes, const std::string& handle)
{
    if (const auto name = After(s_QueuePrefix, handle)) {
        return Pick(FindQueues(processes),
                    std::string(s_QueuePrefix) + std::to_string(FindQueueId(*name)));
    }
    if (const auto name = After(s_LockPrefix, handle)) {
        const std::optional<Lock> lock = FindLock(*name);
        return lock ? std::optional(DescribeLock(processes, *lock)) : std::nullopt;
    }
    if (handle.starts_with(s_SemaphorePrefix)) {
        return Pick(FindStraySemaphores(FindLocks()), handle);
    }
    if (const auto path = After(s_MemoryPrefix, handle)) {
        return FindMemory(processes, *path);
    }
    throw ToolError(CannotAnswer, "not queue:, lock:, semaphore: or memory: and a name: " + handle);
}
