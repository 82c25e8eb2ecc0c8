#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

/// A file or a folder, whatever path leads to it.
using FileId = std::pair<dev_t, ino_t>;

/// Nothing when it can't be examined, or isn't there.
std::optional<FileId> Identify(const std::filesystem::path& path);

/// What the kernel tells about a process, as far as it bears on this library's objects.
struct Process
{
    std::string name;
    bool zombie = false; ///< Ended; only its parent has not asked yet.
    /// Something below could not be read: the process is somebody else's.
    bool opaque = false;
    bool usesLibrary = false;
    /// Where the environment that it was started with puts its locks; nothing when that folder
    /// isn't there. Only of a process that uses the library.
    std::optional<FileId> lockFolder;
    /// It could not be found out which folder that is.
    bool lockFolderHidden = false;
    std::set<FileId> openFiles;
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
    /// `unrelated` are known to use nothing that is looked for, whatever can't be seen of them.
    explicit Processes(const std::set<pid_t>& unrelated = {});

    const std::map<pid_t, Process>& GetAll() const { return m_All; }
    /// Null for one that has ended, or never was.
    const Process* FindAlive(pid_t pid) const;
    /// Those that may use anything, for all that can be seen.
    const std::vector<pid_t>& GetOpaque() const { return m_Opaque; }
    /// Those that may use locks in any folder, for all that can be seen.
    const std::vector<pid_t>& GetUnplaced() const { return m_Unplaced; }

private:
    std::map<pid_t, Process> m_All;
    std::vector<pid_t> m_Opaque;
    std::vector<pid_t> m_Unplaced;
};
