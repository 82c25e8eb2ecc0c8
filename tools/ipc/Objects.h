#pragma once

#include "Processes.h"
#include "common/Tool.h"

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// A living process that has to do with an object.
struct User
{
    pid_t pid;
    std::string program;
    std::string role;
};

enum class State {
    Used,      ///< By those who are named, at least.
    Abandoned, ///< By nobody; it can be removed.
    Uncertain  ///< Not known to be used, nor known not to be.
};

const char* GetName(State state);

/// A queue, a lock, a semaphore without its lock file, or a shared-memory file.
struct Object
{
    /// KIND:NAME, by which the user addresses it.
    std::string handle;
    State state = State::Uncertain;
    /// What makes the state uncertain.
    std::string reason;
    std::vector<User> users;
    /// One line for people.
    std::string summary;
    /// Everything else, by name.
    velahost_tools::Json details;
    std::time_t lastUsed = 0;
    /// Removes it; `std::system_error` when it can't be.
    std::function<void()> remove;
};

/// The objects of this library on this machine. Shared-memory files can lie anywhere: only those
/// that a living process of the library has mapped are among them.
std::vector<Object> FindObjects(const Processes& processes);

/// The object with that handle, as it is now, a shared-memory file too; nothing when there is
/// none. "queue:PATH:ID" names a queue by what its key is made from. A `ToolError` of status
/// `CannotAnswer` for what is no handle.
std::optional<Object> FindObject(const Processes& processes, const std::string& handle);
