#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

/// What the kernel tells about a process, as far as it bears on this library's objects.
struct Process
{
    std::string name;
    bool zombie = false; ///< Ended; only its parent has not asked yet.
    /// Something below could not be read: the process is somebody else's.
    bool opaque = false;
    bool usesLibrary = false;
    /// The install directory in the environment that it was started with.
    std::optional<std::string> installDirectory;
    std::set<std::pair<dev_t, ino_t>> openFiles;
    /// Paths of files that it has mapped shared.
    std::set<std::string> sharedFiles;
    /// What its threads are waiting for.
    std::set<int> awaitedQueues;
    std::set<int> awaitedSemaphores;
};

/// The processes of one moment, by id, without the caller's own. One that ends while it is being
/// looked at is left out.
class Processes
{
public:
    /// `unrelated` are known to have nothing to do with the library, even if they are opaque.
    explicit Processes(const std::set<pid_t>& unrelated = {});

    const std::map<pid_t, Process>& GetAll() const { return m_All; }
    /// Null for one that has ended, or never was.
    const Process* FindAlive(pid_t pid) const;
    /// Those that may use anything, for all that can be seen.
    const std::vector<pid_t>& GetOpaque() const { return m_Opaque; }

private:
    std::map<pid_t, Process> m_All;
    std::vector<pid_t> m_Opaque;
};
