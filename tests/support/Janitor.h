#pragma once

#include <string>

/// Removes what a test program leaves behind, however it ends: a process of its own waits for the
/// program's death, SIGKILL included, and then removes whatever is still registered.
namespace velahost_test::janitor {

enum class Kind : char { Directory = 'd', MessageQueue = 'q', Semaphore = 's' };

/// `what`: a path for a directory, which goes with all its contents; for queues and semaphores the
/// path whose `ftok` key with `projectId` names them, which must lie in a registered directory.
void Register(Kind kind, const std::string& what, int projectId = 0);

/// The owner has removed it.
void Forget(Kind kind, const std::string& what, int projectId = 0);

/// Removes it now. Nothing happens when it is already gone.
void Remove(Kind kind, const std::string& what, int projectId = 0);

} // namespace velahost_test::janitor
