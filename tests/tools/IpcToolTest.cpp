#include "support/BlockedThread.h"
#include "support/ChildProcess.h"
#include "support/InstallDirectory.h"
#include "support/Owner.h"
#include "support/QueueKey.h"
#include "support/RawQueue.h"
#include "support/SemaphoreFile.h"
#include "support/TemporaryDirectory.h"
#include "tools/EchoServer.h"
#include "tools/ManualPage.h"
#include "tools/ToolProcess.h"

#include <VelaHost_OS/ProcessMutex.h>
#include <VelaHost_OS/SharedMemory.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sched.h>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace velahost_test;
using nlohmann::json;
using testing::AnyOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

/// What `clean` needs so as not to ask and not to wait.
const std::vector<std::string> s_AtOnce{"--yes", "--idle", "0"};

std::vector<std::string> operator+(std::vector<std::string> left,
                                   const std::vector<std::string>& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

json Show(const std::vector<std::string>& arguments)
{
    const ToolResult result = RunTool(std::vector<std::string>{TOOL, "show", "--json"} + arguments);
    EXPECT_EQ(result.status, 0) << result.errors;
    return json::parse(result.output).at(0);
}

constexpr const char* s_Hidden = " may not be looked into: ";
constexpr const char* s_Unplaced = " may have locks anywhere: ";

std::string ReasonOf(const json& shown)
{
    return shown.value("reason", "");
}

/// The processes that `text` lists behind `what`, as the tool is told that they are unrelated.
std::vector<std::string> UnrelatedIn(const std::string& text, std::string_view what)
{
    std::vector<std::string> options;
    if (const std::size_t found = text.find(what); found != std::string::npos) {
        std::istringstream pids(text.substr(found + what.size()));
        for (pid_t pid = 0; pids >> pid;) {
            options.insert(options.end(), {"--unrelated", std::to_string(pid)});
        }
    }
    return options;
}

/// Names, to the tool, the processes of this machine that nobody may look into: they are none of
/// the test's.
std::vector<std::string> Unrelated()
{
    const TemporaryDirectory directory;
    return UnrelatedIn(ReasonOf(Show({"memory:" + directory.WriteFile("nobody's", "")})), s_Hidden);
}

/// Those of other tests whose installation isn't where it was, as far as the tool has told of them.
class Strangers
{
public:
    const std::vector<std::string>& GetOptions() const { return m_Options; }

    /// True when it would tell something else without somebody who is hidden.
    bool Hide(const std::string& text)
    {
        m_Options = m_Options + UnrelatedIn(text, s_Unplaced);
        return text.find(s_Hidden) != std::string::npos ||
               text.find(s_Unplaced) != std::string::npos;
    }

private:
    std::vector<std::string> m_Options;
};

/// Calls `look` again while somebody is hidden: a process that is just starting or ending, and that
/// `Unrelated` can't have named yet, is so for a moment.
template <typename Look, typename IsHidden>
auto UntilNobodyIsHidden(const Look& look, const IsHidden& isHidden)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    auto seen = look();
    while (isHidden(seen) && std::chrono::steady_clock::now() < end) {
        seen = look();
    }
    return seen;
}

json ShowToRoot(const std::string& handle, const std::vector<std::string>& options = {})
{
    Strangers strangers;
    return UntilNobodyIsHidden(
        [&] { return Show(std::vector{handle} + options + Unrelated() + strangers.GetOptions()); },
        [&](const json& shown) { return strangers.Hide(ReasonOf(shown)); });
}

ToolResult Clean(const std::string& handle, const std::vector<std::string>& options,
                 const std::string& input = "")
{
    Strangers strangers;
    return UntilNobodyIsHidden(
        [&] {
            return RunTool(std::vector<std::string>{TOOL, "clean", handle} + options + Unrelated() +
                               strangers.GetOptions(),
                           input);
        },
        [&](const ToolResult& result) { return strangers.Hide(result.errors); });
}

/// The roles of the processes that have to do with an object, by their ids.
std::map<pid_t, std::string> Users(const json& shown)
{
    std::map<pid_t, std::string> users;
    for (const json& user : shown["users"]) {
        users[user["process"].get<pid_t>()] = user["role"];
    }
    return users;
}

/// A queue that a process has used that is no more.
class AbandonedQueue
{
public:
    AbandonedQueue()
    {
        ChildProcess child([this] {
            const VelaHost_Ipc::IpcMsgQueue created(m_Key.GetPath(), m_Key.GetId(), false);
            const RawQueue queue(created.GetId());
            queue.Send(1, "received");
            queue.Receive(1);
            queue.Send(1, "left");
            return 0;
        });
        child.Wait();
    }

    int GetId() const { return m_Key.FindQueue(); }
    std::string GetHandle() const { return "queue:" + std::to_string(GetId()); }
    /// By what its key is made from.
    std::string GetPathHandle() const
    {
        return std::string("queue:") + m_Key.GetPath() + ':' + m_Key.GetId();
    }

private:
    QueueKey m_Key;
};

/// System V objects of the test's own, whose ids begin at 0 again, while this lives.
class OwnIpcObjects
{
public:
    OwnIpcObjects()
        : m_Former(open("/proc/self/ns/ipc", O_RDONLY | O_CLOEXEC)),
          m_AreOwn(unshare(CLONE_NEWIPC) == 0)
    {}
    OwnIpcObjects(const OwnIpcObjects&) = delete;
    OwnIpcObjects& operator=(const OwnIpcObjects&) = delete;
    ~OwnIpcObjects()
    {
        setns(m_Former, CLONE_NEWIPC);
        close(m_Former);
    }

    bool AreOwn() const { return m_AreOwn; }

private:
    int m_Former;
    bool m_AreOwn;
};

/// The queue of a server that has not received anything. It takes a moment until the server waits:
/// before that nothing ties it to its queue.
json ShowWhenServerWaits(const std::string& handle)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (;;) {
        json shown = Show({handle});
        if (!shown["users"].empty() || std::chrono::steady_clock::now() > end) {
            return shown;
        }
    }
}

TEST(IpcToolQueue, IsShownWithTheServerThatHasNotReceivedAnything)
{
    const QueueEchoServer server;
    const json shown = ShowWhenServerWaits("queue:" + server.GetAddress());
    EXPECT_EQ(shown["state"], "used");
    EXPECT_THAT(Users(shown), Contains(std::pair(server.GetPid(), "waiting")));
}

TEST(IpcToolQueue, IsShownWithWhatIsInIt)
{
    const AbandonedQueue queue;
    const json shown = ShowToRoot(queue.GetPathHandle());
    EXPECT_EQ(shown["handle"], queue.GetHandle());
    EXPECT_EQ(shown["state"], "abandoned");
    EXPECT_THAT(shown["users"], IsEmpty());
    EXPECT_EQ(shown["messages"], 1);
    EXPECT_EQ(shown["bytes"], 4);
    EXPECT_EQ(shown["mode"], "0766");
    EXPECT_TRUE(shown["sent"].is_string());
}

TEST(IpcToolQueue, IsListed)
{
    const AbandonedQueue queue;
    const ToolResult text = RunTool(std::vector<std::string>{TOOL, "list"} + Unrelated());
    EXPECT_THAT(text.output, HasSubstr(queue.GetHandle() + " "));
    EXPECT_EQ(text.status, 0);
    std::vector<std::string> handles;
    for (const json& object : json::parse(RunTool({TOOL, "list", "--json"}).output)) {
        handles.push_back(object["handle"]);
    }
    EXPECT_THAT(handles, Contains(queue.GetHandle()));
}

TEST(IpcToolQueue, OfAnotherModeIsNotOfTheLibrary)
{
    const QueueKey key;
    const int id = msgget(key.GetKey(), IPC_CREAT | 0666);
    const ToolResult result = RunTool({TOOL, "show", "queue:" + std::to_string(id)});
    EXPECT_EQ(result.errors, "velahost-ipc: there is no queue:" + std::to_string(id) + "\n");
    EXPECT_EQ(result.status, 1);
}

TEST(IpcToolQueue, IsCleanedWhenItIsAbandoned)
{
    const AbandonedQueue queue;
    const std::string handle = queue.GetHandle();
    const ToolResult result = Clean(handle, s_AtOnce);
    EXPECT_EQ(result.output, "removed " + handle + "\n");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(queue.GetId(), -1);
}

TEST(IpcToolQueue, StaysWhenTheUserDoesNotAgree)
{
    const AbandonedQueue queue;
    for (const char* answer : {"n\n", "\n", ""}) {
        const ToolResult result = Clean(queue.GetHandle(), {"--idle", "0"}, answer);
        EXPECT_EQ(result.output, "remove " + queue.GetHandle() + " (1 message)? [y/N] ");
        EXPECT_EQ(result.status, 0);
        EXPECT_NE(queue.GetId(), -1);
    }
    EXPECT_EQ(Clean(queue.GetHandle(), {"--idle", "0"}, "y\n").status, 0);
    EXPECT_EQ(queue.GetId(), -1);
}

TEST(IpcToolQueue, StaysWhenItWasUsedAMomentAgo)
{
    const AbandonedQueue queue;
    const ToolResult result = Clean(queue.GetHandle(), {"--yes"});
    EXPECT_THAT(result.errors, StartsWith(queue.GetHandle() + " stays: used "));
    EXPECT_THAT(result.errors, EndsWith(" s ago\n"));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(queue.GetId(), -1);
}

TEST(IpcToolQueue, StaysWhileItsLastReceiverLives)
{
    const QueueKey key;
    Owner owner([&key] {
        const VelaHost_Ipc::IpcMsgQueue created(key.GetPath(), key.GetId(), false);
        const RawQueue queue(created.GetId());
        queue.Send(1, "x");
        queue.Receive(1);
        return std::to_string(getpid());
    });
    const std::string handle = "queue:" + std::to_string(key.FindQueue());
    EXPECT_THAT(Users(Show({handle})),
                Contains(std::pair(std::stoi(owner.GetText()), "last receiver")));
    const ToolResult result = Clean(handle, s_AtOnce);
    EXPECT_THAT(result.errors, StartsWith(handle + " stays: used by " + owner.GetText() + " "));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(key.FindQueue(), -1);

    owner.Kill();
    EXPECT_EQ(Clean(handle, s_AtOnce).status, 0);
    EXPECT_EQ(key.FindQueue(), -1);
}

TEST(IpcToolQueue, StaysWhileAServerThatHasNotReceivedAnythingWaits)
{
    QueueEchoServer server;
    const std::string handle = "queue:" + server.GetAddress();
    ShowWhenServerWaits(handle);
    EXPECT_EQ(Clean(handle, s_AtOnce).status, 1);
    EXPECT_NE(server.GetQueue(), -1);
    server.Kill();
    EXPECT_EQ(Clean(handle, s_AtOnce).status, 0);
    EXPECT_EQ(server.GetQueue(), -1);
}

TEST(IpcToolQueue, StaysWhenSomeProcessMayNotBeLookedInto)
{
    if (Unrelated().empty()) {
        GTEST_SKIP() << "every process here may be looked into";
    }
    const AbandonedQueue queue;
    const json shown = Show({queue.GetHandle()});
    EXPECT_EQ(shown["state"], "uncertain");
    EXPECT_THAT(shown["reason"].get<std::string>(), HasSubstr(s_Hidden));
    const ToolResult result =
        RunTool(std::vector<std::string>{TOOL, "clean", queue.GetHandle()} + s_AtOnce);
    EXPECT_THAT(result.errors, HasSubstr(s_Hidden));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(queue.GetId(), -1);
}

TEST(IpcToolQueue, IsAbandonedThoughSomebodyWaitsForOneOfTheSameIdInAnotherNamespace)
{
    const OwnIpcObjects ours;
    if (!ours.AreOwn()) {
        GTEST_SKIP() << "no System V objects of its own for this user";
    }
    const AbandonedQueue queue;
    BlockedThread stranger([id = queue.GetId()] {
        const OwnIpcObjects theirs;
        const RawQueue other(msgget(IPC_PRIVATE, IPC_CREAT | 0600));
        if (other.GetId() == id) {
            other.Receive(1);
        }
    });
    stranger.WaitUntilReceiving();
    // Also when the tool shows something unreadable: nobody else can reach the stranger's queue.
    const struct Cancelling
    {
        BlockedThread& thread;
        ~Cancelling() { thread.Cancel(); }
    } cancelling{stranger};
    const json shown = ShowToRoot(queue.GetHandle());
    EXPECT_EQ(shown["state"], "abandoned");
    EXPECT_THAT(shown["users"], IsEmpty());
}

constexpr const char* s_Name = "mutex";
constexpr const char* s_LockHandle = "lock:mutex";

class IpcToolLock : public testing::Test
{
protected:
    std::string LockFile() const { return m_Install.File(std::string("temp/") + s_Name); }
    bool HasFile() const { return std::filesystem::exists(LockFile()); }

    InstallDirectory m_Install;
    SemaphoreFile m_Semaphore{LockFile()};
};

std::string HoldLock()
{
    auto* mutex = new VelaHost_OS::ProcessMutex(s_Name);
    mutex->Init();
    mutex->Lock();
    return std::to_string(getpid());
}

TEST_F(IpcToolLock, IsShownWithItsHolderAndStays)
{
    Owner owner(HoldLock);
    const json shown = Show({s_LockHandle});
    EXPECT_EQ(shown["state"], "used");
    EXPECT_THAT(Users(shown), Contains(std::pair(std::stoi(owner.GetText()), "has the file open")));
    EXPECT_EQ(shown["path"], LockFile());
    EXPECT_EQ(shown["semaphore"], m_Semaphore.FindSemaphore());
    EXPECT_EQ(shown["value"], 0);
    EXPECT_EQ(shown["marked"], true);

    EXPECT_EQ(Clean(s_LockHandle, s_AtOnce).status, 1);
    EXPECT_TRUE(HasFile());
    EXPECT_NE(m_Semaphore.FindSemaphore(), -1);
}

TEST_F(IpcToolLock, IsCleanedWithItsSemaphoreWhenItsHolderIsDead)
{
    Owner(HoldLock).Kill();
    EXPECT_EQ(ShowToRoot(s_LockHandle)["state"], "abandoned");
    const ToolResult result = Clean(s_LockHandle, s_AtOnce);
    EXPECT_EQ(result.output, "removed lock:mutex\n");
    EXPECT_EQ(result.status, 0);
    EXPECT_FALSE(HasFile());
    EXPECT_EQ(m_Semaphore.FindSemaphore(), -1);
}

TEST_F(IpcToolLock, StaysWhileOneThatAttachedLives)
{
    Owner(HoldLock).Kill();
    // It has no file open: only the semaphore tells that it was the last to lock.
    Owner attached(HoldLock);
    EXPECT_THAT(Users(Show({s_LockHandle})),
                Contains(std::pair(std::stoi(attached.GetText()), "last to lock or unlock")));
    EXPECT_EQ(Clean(s_LockHandle, s_AtOnce).status, 1);
    EXPECT_TRUE(HasFile());
}

TEST_F(IpcToolLock, StaysWhileAProcessOfTheSameInstallationLives)
{
    Owner(HoldLock).Kill();
    const QueueEchoServer server;
    ToolProcess other({CLIENT_TOOL, "listen", "--queue", server.GetAddress()});
    other.ReadErrorLine();
    EXPECT_THAT(Users(Show({s_LockHandle})),
                Contains(std::pair(other.GetPid(), "of the same installation")));
    EXPECT_EQ(Clean(s_LockHandle, s_AtOnce).status, 1);
    EXPECT_TRUE(HasFile());
}

/// A client of `server` that was started in `folder` with that name for its install directory.
ToolProcess StartIn(const std::string& folder, const std::string& installDirectory,
                    const QueueEchoServer& server)
{
    const InstallVariable variable(installDirectory);
    return ToolProcess({"/bin/sh", "-c", "cd \"$0\" && exec \"$@\"", folder, CLIENT_TOOL, "listen",
                        "--queue", server.GetAddress()});
}

TEST_F(IpcToolLock, StaysWhileAProcessLivesThatNamesTheInstallationOtherwise)
{
    Owner(HoldLock).Kill();
    const QueueEchoServer server;
    const TemporaryDirectory elsewhere;
    std::filesystem::create_directory_symlink(m_Install.GetPath(), elsewhere.File("link"));
    for (const std::string& name :
         {m_Install.GetPath() + "/", elsewhere.File("link"), std::string(".")}) {
        ToolProcess other = StartIn(m_Install.GetPath(), name, server);
        other.ReadErrorLine();
        EXPECT_THAT(Users(Show({s_LockHandle})),
                    Contains(std::pair(other.GetPid(), "of the same installation")))
            << name;
        EXPECT_EQ(Clean(s_LockHandle, s_AtOnce).status, 1) << name;
        EXPECT_TRUE(HasFile()) << name;
    }
}

TEST_F(IpcToolLock, IsAbandonedThoughAProcessOfAnotherInstallationLives)
{
    Owner(HoldLock).Kill();
    const QueueEchoServer server;
    const TemporaryDirectory elsewhere; // without a folder for locks
    ToolProcess other = StartIn(m_Install.GetPath(), elsewhere.GetPath(), server);
    other.ReadErrorLine();
    EXPECT_EQ(ShowToRoot(s_LockHandle)["state"], "abandoned");
}

TEST_F(IpcToolLock, StaysWhileAProcessLivesWhoseInstallationIsNotWhereItWas)
{
    Owner(HoldLock).Kill();
    const QueueEchoServer server;
    const TemporaryDirectory elsewhere;
    ToolProcess other = StartIn(m_Install.GetPath(), elsewhere.File("moved"), server);
    other.ReadErrorLine();
    const std::string pid = std::to_string(other.GetPid());
    const json shown = UntilNobodyIsHidden(
        [] { return Show(std::vector<std::string>{s_LockHandle} + Unrelated()); },
        [](const json& seen) { return ReasonOf(seen).find(s_Hidden) != std::string::npos; });
    EXPECT_EQ(shown["state"], "uncertain");
    const std::string reason = ReasonOf(shown);
    EXPECT_THAT(reason, HasSubstr(s_Unplaced));
    EXPECT_THAT(reason + ' ', HasSubstr(' ' + pid + ' '));
    EXPECT_EQ(RunTool(std::vector<std::string>{TOOL, "clean", s_LockHandle} + s_AtOnce).status, 1);
    EXPECT_TRUE(HasFile());

    EXPECT_EQ(ShowToRoot(s_LockHandle, {"--unrelated", pid})["state"], "abandoned");
}

TEST_F(IpcToolLock, IsKnownWithoutItsSemaphore)
{
    Owner(HoldLock).Kill();
    semctl(m_Semaphore.FindSemaphore(), 0, IPC_RMID);
    EXPECT_TRUE(ShowToRoot(s_LockHandle)["semaphore"].is_null());
    EXPECT_EQ(Clean(s_LockHandle, s_AtOnce).status, 0);
    EXPECT_FALSE(HasFile());
}

TEST_F(IpcToolLock, ThatHasNoMarkIsKnownByItsSemaphore)
{
    std::ofstream(LockFile()).close();
    semget(ftok(LockFile().c_str(), 0), 1, IPC_CREAT | 0600);
    const json shown = ShowToRoot(s_LockHandle);
    EXPECT_EQ(shown["marked"], false);
    EXPECT_EQ(shown["state"], "abandoned");
}

TEST_F(IpcToolLock, ThatMayBeAnyEmptyFileStays)
{
    std::ofstream(LockFile()).close();
    const json shown = ShowToRoot(s_LockHandle);
    EXPECT_EQ(shown["marked"], false);
    EXPECT_EQ(shown["state"], "uncertain");
    const ToolResult result = Clean(s_LockHandle, s_AtOnce);
    EXPECT_EQ(result.errors, "lock:mutex stays: nothing proves that the empty file is a lock\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(HasFile());
}

TEST_F(IpcToolLock, IsNoOtherFileOfTheFolder)
{
    std::ofstream(LockFile()) << "2";
    std::ofstream(m_Install.File("temp/notes")) << "longer";
    std::filesystem::create_symlink("/dev/null", m_Install.File("temp/link"));
    std::filesystem::create_directory(m_Install.File("temp/folder"));
    EXPECT_THAT(RunTool({TOOL, "list"}).output, Not(HasSubstr("lock:")));
    EXPECT_EQ(Clean(s_LockHandle, s_AtOnce).status, 1);
    EXPECT_TRUE(HasFile());
}

TEST(IpcToolLockFolder, NeedsASemaphoreForALockInTheFolderOfEverybody)
{
    const InstallVariable notSet(std::nullopt);
    const TemporaryDirectory directory; // under /tmp
    const std::string name = std::filesystem::relative(directory.WriteFile("lock", "\1"), "/tmp");
    EXPECT_EQ(RunTool({TOOL, "show", "lock:" + name}).status, 1);
    const SemaphoreFile semaphore(directory.File("lock"));
    semget(ftok(semaphore.GetPath().c_str(), 0), 1, IPC_CREAT | 0600);
    EXPECT_EQ(ShowToRoot("lock:" + name)["path"], directory.File("lock"));
}

TEST(IpcToolSemaphore, WithoutALockFileIsShownAndNeverRemoved)
{
    const InstallDirectory install;
    const TemporaryDirectory directory;
    const SemaphoreFile unmoved(install.File("temp/lock"));
    const SemaphoreFile semaphore(directory.File("moved"));
    // The key goes with the file wherever it is moved.
    std::ofstream(install.File("temp/lock")) << '\1';
    const int id = semget(ftok(install.File("temp/lock").c_str(), 0), 1, IPC_CREAT | 0600);
    std::filesystem::rename(install.File("temp/lock"), directory.File("moved"));
    ASSERT_EQ(semaphore.FindSemaphore(), id);

    const std::string handle = "semaphore:" + std::to_string(id);
    EXPECT_THAT(RunTool({TOOL, "list"}).output, HasSubstr(handle));
    EXPECT_EQ(ShowToRoot(handle)["state"], "uncertain");
    const ToolResult result = Clean(handle, s_AtOnce);
    EXPECT_EQ(result.errors, handle + " stays: no lock file tells whose it is\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(semaphore.FindSemaphore(), id);
}

TEST(IpcToolMemory, IsFoundByTheProcessThatHasItMappedAndStays)
{
    const TemporaryDirectory directory;
    const std::string path = directory.File("status");
    Owner owner([&path] {
        VelaHost_OS::SharedMemory memory(path.c_str());
        memory.Create(4096);
        memory.Map();
        return std::to_string(getpid());
    });
    const std::string handle = "memory:" + path;
    EXPECT_THAT(RunTool({TOOL, "list"}).output, HasSubstr(handle + " "));
    const json shown = Show({handle});
    EXPECT_EQ(shown["state"], "used");
    EXPECT_EQ(shown["size"], 4096);
    EXPECT_THAT(Users(shown), Contains(std::pair(std::stoi(owner.GetText()), "has it mapped")));
    EXPECT_EQ(Clean(handle, s_AtOnce).status, 1);
    EXPECT_TRUE(std::filesystem::exists(path));

    owner.Kill();
    EXPECT_EQ(ShowToRoot(handle)["state"], "abandoned");
    EXPECT_EQ(Clean(handle, s_AtOnce).status, 0);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(IpcToolMemory, IsUsedByAProcessThatHasItOpen)
{
    const TemporaryDirectory directory;
    const std::string path = directory.WriteFile("status", "content");
    const std::string handle = "memory:" + path;
    const Owner owner([&path] {
        (new VelaHost_OS::SharedMemory(path.c_str()))->Open();
        return std::to_string(getpid());
    });
    EXPECT_THAT(Users(Show({handle})),
                Contains(std::pair(std::stoi(owner.GetText()), "has it open")));
    EXPECT_EQ(Clean(handle, s_AtOnce).status, 1);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(IpcToolClean, WithoutHandlesRemovesWhatIsAbandonedAndNothingElse)
{
    // Other tests' abandoned queues are none of this one's.
    const OwnIpcObjects ours;
    if (!ours.AreOwn()) {
        GTEST_SKIP() << "no System V objects of its own for this user";
    }
    const InstallDirectory install;
    const AbandonedQueue abandoned;
    const AbandonedQueue taken;
    const SemaphoreFile semaphore(install.File(std::string("temp/") + s_Name));
    Owner(HoldLock).Kill();
    const Owner receiver([&taken] {
        RawQueue(taken.GetId()).Receive(1);
        return std::string("received");
    });
    const std::string handle = abandoned.GetHandle();
    std::string removed;
    Strangers strangers;
    const ToolResult result = UntilNobodyIsHidden(
        [&] {
            ToolResult cleaned = RunTool(std::vector<std::string>{TOOL, "clean"} + s_AtOnce +
                                         Unrelated() + strangers.GetOptions());
            removed += cleaned.output;
            return cleaned;
        },
        [&](const ToolResult& cleaned) { return strangers.Hide(cleaned.errors); });
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(removed, AnyOf("removed " + handle + "\nremoved lock:mutex\n",
                               "removed lock:mutex\nremoved " + handle + "\n"));
    EXPECT_EQ(abandoned.GetId(), -1);
    EXPECT_NE(taken.GetId(), -1);
    EXPECT_EQ(semaphore.FindSemaphore(), -1);
}

TEST(IpcToolUsage, AnObjectThatIsNotThereIsReported)
{
    const TemporaryDirectory directory;
    for (const std::string& handle :
         {"queue:" + directory.GetPath() + ":q", std::string("lock:no such lock"),
          "memory:" + directory.File("missing"), "memory:" + directory.GetPath()}) {
        const ToolResult result = RunTool({TOOL, "show", handle});
        EXPECT_EQ(result.errors, "velahost-ipc: there is no " + handle + "\n");
        EXPECT_EQ(result.status, 1);
    }
}

TEST(IpcToolUsage, WrongArgumentsHaveTheirOwnStatus)
{
    const std::vector<std::vector<std::string>> wrong{{},
                                                      {"unknown"},
                                                      {"show"},
                                                      {"show", "mutex"},
                                                      {"show", "queue:/tmp"},
                                                      {"list", "--yes"},
                                                      {"list", "--unrelated", "init"},
                                                      {"clean", "--idle", "-1"}};
    for (const std::vector<std::string>& arguments : wrong) {
        EXPECT_EQ(RunTool(std::vector<std::string>{TOOL} + arguments).status, 2)
            << testing::PrintToString(arguments);
    }
}

TEST(IpcToolUsage, TheManualPageDescribesTheOptions)
{
    EXPECT_EQ(OptionsOfManualPage(MANUAL_PAGE), OptionsOfHelp(TOOL, {"list", "show", "clean"}));
}

} // namespace
