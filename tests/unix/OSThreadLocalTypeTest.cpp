#include <VelaHost_OS/ThreadLocalType.h>

#include "support/CancelledThread.h"
#include "support/ChildProcess.h"
#include "support/Interpose.h"
#include "support/Sanitizers.h"
#include "support/ThrownException.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_OS/Thread.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace velahost_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using VelaHost_OS::ThreadLocalType;
using VelaHost_Utility::SystemException;

constexpr auto s_NoKey = static_cast<pthread_key_t>(-1);

/// What the types of a test were asked to do, in order, from any thread.
class Journal
{
public:
    void Add(const std::string& entry)
    {
        const std::lock_guard guard(m_Mutex);
        m_Entries.push_back(entry);
    }
    std::vector<std::string> Take()
    {
        const std::lock_guard guard(m_Mutex);
        return std::exchange(m_Entries, {});
    }

private:
    std::mutex m_Mutex;
    std::vector<std::string> m_Entries;
};

/// A type that keeps a journal and does what a test plugs in. By default its values are the address
/// of an `int`, which no thread but the main one may end with.
class JournalType : public ThreadLocalType
{
public:
    explicit JournalType(Journal& journal, std::string name = "type")
        : m_Journal(journal), m_Name(std::move(name))
    {}
    ~JournalType() override { m_Journal.Add(m_Name + " deleted"); }

    void DestroyValue(void* value) override
    {
        m_Journal.Add(m_Name + (value != nullptr ? " destroy value" : " destroy null"));
        m_OnDestroy(value);
    }
    void* CreateValue() override
    {
        m_Journal.Add(m_Name + " create");
        return m_OnCreate();
    }
    void DetachThread() override { m_Journal.Add(m_Name + " detach thread"); }

    int m_Value = 0;
    std::function<void(void*)> m_OnDestroy = [](void*) {};
    std::function<void*()> m_OnCreate = [this] { return &m_Value; };

private:
    Journal& m_Journal;
    std::string m_Name;
};

/// Every test begins and ends with an empty registry, whatever types it left there.
class Registry : public ::testing::Test
{
protected:
    Registry() { EXPECT_EQ(ThreadLocalType::s_AllTypes, nullptr); }
    ~Registry() override { ThreadLocalType::s_AllTypes = nullptr; }

    JournalType* NewType(const std::string& name) { return new JournalType(m_Journal, name); }

    /// Runs `body` on a thread of its own and waits for its end.
    static void OnAThread(const std::function<void()>& body) { std::thread(body).join(); }

    static bool IsRegistryHeld()
    {
        bool held = false;
        OnAThread([&held] {
            held = !ThreadLocalType::s_Mutex.TryLock();
            if (!held) {
                ThreadLocalType::s_Mutex.Unlock();
            }
        });
        return held;
    }

    Journal m_Journal;
};

class ThreadLocalConstructor : public Registry
{};

TEST_F(ThreadLocalConstructor, PutsTheObjectAtTheHeadOfTheRegistry)
{
    JournalType first(m_Journal);
    EXPECT_EQ(ThreadLocalType::s_AllTypes, &first);
    EXPECT_EQ(first.m_Next, nullptr);
    JournalType second(m_Journal);
    EXPECT_EQ(ThreadLocalType::s_AllTypes, &second);
    EXPECT_EQ(second.m_Next, &first);
    EXPECT_EQ(first.m_Next, nullptr);
    EXPECT_THAT(m_Journal.Take(), IsEmpty());
}

TEST_F(ThreadLocalConstructor, AllocatesNoKey)
{
    JournalType type(m_Journal);
    EXPECT_EQ(type.m_Key, s_NoKey);
}

TEST_F(ThreadLocalConstructor, TakesTheRegistryMutexOnce)
{
    const unsigned int locks = ThreadLocalType::s_Mutex.GetLockCount();
    const unsigned int unlocks = ThreadLocalType::s_Mutex.GetUnlockCount();
    JournalType type(m_Journal);
    EXPECT_EQ(ThreadLocalType::s_Mutex.GetLockCount(), locks + 1);
    EXPECT_EQ(ThreadLocalType::s_Mutex.GetUnlockCount(), unlocks + 1);
}

TEST_F(ThreadLocalConstructor, RegistersFromManyThreadsAtOnce)
{
    constexpr int threadCount = 8;
    constexpr int typesPerThread = 50;
    std::vector<std::unique_ptr<JournalType>> types[threadCount];
    std::vector<std::thread> threads;
    std::latch start(threadCount);
    for (auto& mine : types) {
        threads.emplace_back([this, &mine, &start] {
            start.arrive_and_wait();
            for (int i = 0; i < typesPerThread; ++i) {
                mine.push_back(std::make_unique<JournalType>(m_Journal));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<ThreadLocalType*> registered;
    for (ThreadLocalType* type = ThreadLocalType::s_AllTypes; type != nullptr;
         type = type->m_Next) {
        registered.insert(type);
    }
    EXPECT_EQ(registered.size(), static_cast<std::size_t>(threadCount * typesPerThread));
}

TEST_F(ThreadLocalConstructor, RegistersNothingWhenTheMutexFails)
{
    JournalType other(m_Journal);
    for (const char* call : {"pthread_mutex_lock", "pthread_mutex_unlock"}) {
        {
            const FailingCall failure(call, EINVAL);
            errno = 41;
            EXPECT_TRUE(Throws<SystemException>([&] { const JournalType type(m_Journal); },
                                                SystemFailure(41)))
                << call;
        }
        EXPECT_EQ(ThreadLocalType::s_AllTypes, &other) << call;
    }
    ThreadLocalType::s_Mutex.Unlock(); // The second failure left it held.
    EXPECT_FALSE(IsRegistryHeld());
}

class ThreadLocalDestructor : public Registry
{};

TEST_F(ThreadLocalDestructor, DeletesTheKey)
{
    pthread_key_t key = s_NoKey;
    {
        JournalType type(m_Journal);
        type.Allocate();
        key = type.m_Key;
    }
    EXPECT_EQ(pthread_key_delete(key), EINVAL);
}

TEST_F(ThreadLocalDestructor, DeletesNoKeyThatWasNeverAllocated)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "keys are not interposed";
    }
    const CallCounter deletions("pthread_key_delete");
    {
        JournalType type(m_Journal);
    }
    EXPECT_EQ(deletions.GetCallCount(), 0U);
}

TEST_F(ThreadLocalDestructor, ThrowsAfterTheKeyWasFreed)
{
    errno = 42;
    EXPECT_TRUE(Throws<SystemException>(
        [this] {
            JournalType type(m_Journal);
            type.Allocate();
            type.Free();
        },
        SystemFailure(42)));
}

TEST_F(ThreadLocalDestructor, LeavesTheObjectInTheRegistry)
{
    JournalType older(m_Journal);
    ThreadLocalType* gone = nullptr;
    {
        JournalType type(m_Journal);
        gone = &type;
    }
    EXPECT_EQ(ThreadLocalType::s_AllTypes, gone);
}

class ThreadLocalKey : public Registry
{};

TEST_F(ThreadLocalKey, IsAllocatedAndFreedByHand)
{
    JournalType type(m_Journal);
    type.Allocate();
    const pthread_key_t key = type.m_Key;
    EXPECT_NE(key, s_NoKey);
    type.SetValue(&type.m_Value);
    EXPECT_EQ(pthread_getspecific(key), &type.m_Value);
    type.Free();
    EXPECT_EQ(type.m_Key, key);
    EXPECT_EQ(pthread_key_delete(key), EINVAL);
    type.m_Key = s_NoKey; // Nothing is left for the destructor to delete.
}

TEST_F(ThreadLocalKey, IsNeededForAValueAndForFree)
{
    JournalType type(m_Journal);
    errno = 43;
    EXPECT_TRUE(Throws<SystemException>([&] { type.SetValue(nullptr); }, SystemFailure(43)));
    EXPECT_TRUE(Throws<SystemException>([&] { type.Free(); }, SystemFailure(43)));
    EXPECT_TRUE(Throws<SystemException>([&] { type.AttachThread(); }, SystemFailure(43)));
    type.Destructor();
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
}

TEST_F(ThreadLocalKey, StaysUnallocatedWhenThePlatformRefuses)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "keys are not interposed";
    }
    JournalType type(m_Journal);
    const FailingCall failure("pthread_key_create", EAGAIN);
    errno = 44;
    EXPECT_TRUE(Throws<SystemException>([&] { type.Allocate(); }, SystemFailure(44)));
    EXPECT_EQ(type.m_Key, s_NoKey);
}

class ThreadLocalGetValue : public Registry
{};

TEST_F(ThreadLocalGetValue, MakesTheValueOnFirstUse)
{
    JournalType type(m_Journal);
    EXPECT_EQ(type.GetValue(), &type.m_Value);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
    EXPECT_NE(type.m_Key, s_NoKey);
    EXPECT_EQ(type.GetValue(), &type.m_Value);
    EXPECT_THAT(m_Journal.Take(), IsEmpty());
    EXPECT_FALSE(IsRegistryHeld());
}

TEST_F(ThreadLocalGetValue, TakesTheRegistryMutexForTheFirstUseOnly)
{
    JournalType type(m_Journal);
    const unsigned int locks = ThreadLocalType::s_Mutex.GetLockCount();
    type.GetValue();
    type.GetValue();
    EXPECT_EQ(ThreadLocalType::s_Mutex.GetLockCount(), locks + 1);
}

TEST_F(ThreadLocalGetValue, ReturnsWhatWasSet)
{
    JournalType type(m_Journal);
    type.Allocate();
    int mine = 0;
    type.SetValue(&mine);
    EXPECT_EQ(type.GetValue(), &mine);
    EXPECT_THAT(m_Journal.Take(), IsEmpty());
}

TEST_F(ThreadLocalGetValue, CreatesAgainWhileThereIsNoValue)
{
    JournalType type(m_Journal);
    type.m_OnCreate = [] { return nullptr; };
    EXPECT_EQ(type.GetValue(), nullptr);
    EXPECT_EQ(type.GetValue(), nullptr);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create", "type create"));
}

// Every thread has found the key missing before the first of them may allocate it.
TEST_F(ThreadLocalGetValue, AllocatesTheKeyOnceForRacingThreads)
{
    constexpr int threadCount = 8;
    JournalType type(m_Journal);
    int values[threadCount] = {};
    std::atomic<int> created{0};
    type.m_OnCreate = [&] { return &values[created++]; };
    std::optional<CallCounter> allocations;
    if (!isThreadSanitized) {
        allocations.emplace("pthread_key_create", Scope::AnyThread);
    }
    std::latch allAtTheMutex(threadCount);
    std::atomic<pthread_mutex_t*> registryMutex{nullptr};
    {
        const Hook find(interposed::pthread_mutex_lock, [&](pthread_mutex_t* mutex) {
            registryMutex = mutex;
            return std::optional<int>();
        });
        ThreadLocalType::s_Mutex.Lock();
    }
    ThreadLocalType::s_Mutex.Unlock();
    const Hook gate(interposed::pthread_mutex_lock, [&](pthread_mutex_t* mutex) {
        if (mutex == registryMutex) {
            allAtTheMutex.arrive_and_wait();
        }
        return std::optional<int>();
    });
    std::atomic<unsigned int> wrong{0};
    std::mutex seenMutex;
    std::set<void*> seenValues;
    std::set<pthread_key_t> seenKeys;
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&] {
            void* value = type.GetValue();
            const pthread_key_t key = type.m_Key;
            wrong += type.GetValue() != value;
            type.SetValue(nullptr);
            const std::lock_guard guard(seenMutex);
            seenValues.insert(value);
            seenKeys.insert(key);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(created, threadCount);
    EXPECT_EQ(seenValues.size(), static_cast<std::size_t>(threadCount));
    EXPECT_EQ(seenKeys.size(), 1U);
    EXPECT_EQ(wrong, 0U);
    if (allocations) {
        EXPECT_EQ(allocations->GetCallCount(), 1U);
    }
}

TEST_F(ThreadLocalGetValue, ThrowsWithTheRegistryHeldWhenThereIsNoKeyLeft)
{
    JournalType type(m_Journal);
    std::vector<pthread_key_t> keys;
    pthread_key_t key = 0;
    while (pthread_key_create(&key, nullptr) == 0) {
        keys.push_back(key);
    }
    errno = 45;
    EXPECT_TRUE(Throws<SystemException>([&] { type.GetValue(); }, SystemFailure(45)));
    EXPECT_TRUE(ThreadLocalType::s_Mutex.IsLocked());
    EXPECT_TRUE(IsRegistryHeld());
    EXPECT_EQ(type.m_Key, s_NoKey);
    EXPECT_THAT(m_Journal.Take(), IsEmpty());
    ThreadLocalType::s_Mutex.Unlock();
    for (const pthread_key_t taken : keys) {
        pthread_key_delete(taken);
    }
    EXPECT_EQ(type.GetValue(), &type.m_Value);
}

TEST_F(ThreadLocalGetValue, ThrowsWhenTheMutexFails)
{
    for (const char* call : {"pthread_mutex_lock", "pthread_mutex_unlock"}) {
        JournalType type(m_Journal);
        m_Journal.Take();
        const FailingCall failure(call, EINVAL);
        errno = 46;
        EXPECT_TRUE(Throws<SystemException>([&] { type.GetValue(); }, SystemFailure(46))) << call;
        EXPECT_THAT(m_Journal.Take(), IsEmpty()) << call;
        EXPECT_EQ(type.m_Key == s_NoKey, call == std::string("pthread_mutex_lock"));
    }
    ThreadLocalType::s_Mutex.Unlock();
}

TEST_F(ThreadLocalGetValue, ThrowsWhenTheNewValueCannotBeSet)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "keys are not interposed";
    }
    JournalType type(m_Journal);
    {
        const FailingCall failure("pthread_setspecific", ENOMEM);
        errno = 47;
        EXPECT_TRUE(Throws<SystemException>([&] { type.GetValue(); }, SystemFailure(47)));
    }
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
    EXPECT_FALSE(IsRegistryHeld());
    EXPECT_EQ(type.GetValue(), &type.m_Value);
}

TEST_F(ThreadLocalGetValue, PassesOnWhatCreateValueThrows)
{
    JournalType type(m_Journal);
    type.m_OnCreate = []() -> void* { throw std::runtime_error("no value"); };
    EXPECT_THROW(type.GetValue(), std::runtime_error);
    EXPECT_FALSE(IsRegistryHeld());
}

class ThreadLocalAttach : public Registry
{};

TEST_F(ThreadLocalAttach, ThreadMakesAndSetsAValue)
{
    JournalType type(m_Journal);
    type.Allocate();
    type.AttachThread();
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
    EXPECT_EQ(type.GetValue(), &type.m_Value);
    type.AttachThread();
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
}

TEST_F(ThreadLocalAttach, ProcessAllocatesThenMakesAValue)
{
    JournalType type(m_Journal);
    type.m_OnCreate = [&]() -> void* {
        EXPECT_NE(type.m_Key, s_NoKey);
        return &type.m_Value;
    };
    type.AttachProcess();
    EXPECT_EQ(pthread_getspecific(type.m_Key), &type.m_Value);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
}

TEST_F(ThreadLocalAttach, ProcessForgetsAnEarlierKey)
{
    JournalType type(m_Journal);
    type.GetValue();
    const pthread_key_t first = type.m_Key;
    type.AttachProcess();
    EXPECT_NE(type.m_Key, first);
    EXPECT_EQ(pthread_key_delete(first), 0);
}

TEST_F(ThreadLocalAttach, ProcessPassesFailuresOn)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "keys are not interposed";
    }
    JournalType type(m_Journal);
    errno = 48;
    {
        const FailingCall failure("pthread_key_create", EAGAIN);
        EXPECT_TRUE(Throws<SystemException>([&] { type.AttachProcess(); }, SystemFailure(48)));
    }
    EXPECT_THAT(m_Journal.Take(), IsEmpty());
    const FailingCall failure("pthread_setspecific", ENOMEM);
    EXPECT_TRUE(Throws<SystemException>([&] { type.AttachProcess(); }, SystemFailure(48)));
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
}

TEST_F(ThreadLocalAttach, AllDoesNothingWithoutTypes)
{
    ThreadLocalType::AttachThreadAll();
    ThreadLocalType::AttachProcessAll();
    ThreadLocalType::DetachProcessAll();
    EXPECT_EQ(ThreadLocalType::s_AllTypes, nullptr);
}

TEST_F(ThreadLocalAttach, AllReachesEveryTypeFromTheYoungest)
{
    JournalType first(m_Journal, "first");
    JournalType second(m_Journal, "second");
    JournalType third(m_Journal, "third");
    ThreadLocalType::AttachProcessAll();
    EXPECT_THAT(m_Journal.Take(), ElementsAre("third create", "second create", "first create"));
    OnAThread([&] {
        ThreadLocalType::AttachThreadAll();
        for (JournalType* type : {&first, &second, &third}) {
            EXPECT_EQ(pthread_getspecific(type->m_Key), &type->m_Value);
            type->SetValue(nullptr);
        }
    });
    EXPECT_THAT(m_Journal.Take(), ElementsAre("third create", "second create", "first create"));
    EXPECT_FALSE(IsRegistryHeld());
}

TEST_F(ThreadLocalAttach, AllWalksWithoutTheRegistryMutex)
{
    JournalType type(m_Journal);
    const unsigned int locks = ThreadLocalType::s_Mutex.GetLockCount();
    ThreadLocalType::AttachProcessAll();
    ThreadLocalType::AttachThreadAll();
    EXPECT_EQ(ThreadLocalType::s_Mutex.GetLockCount(), locks);
}

TEST_F(ThreadLocalAttach, AllAndDestructorRunOnManyThreadsAtOnce)
{
    constexpr std::size_t threads = 8;
    constexpr std::size_t rounds = 100;
    JournalType first(m_Journal, "first");
    JournalType second(m_Journal, "second");
    ThreadLocalType::AttachProcessAll();
    m_Journal.Take();
    std::latch start(threads);
    std::vector<std::thread> running;
    for (std::size_t i = 0; i < threads; ++i) {
        running.emplace_back([&] {
            start.arrive_and_wait();
            for (std::size_t round = 0; round < rounds; ++round) {
                ThreadLocalType::AttachThreadAll();
                for (JournalType* type : {&first, &second}) {
                    EXPECT_EQ(type->GetValue(), &type->m_Value);
                    type->Destructor();
                    type->SetValue(nullptr);
                }
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
    const std::vector<std::string> journal = m_Journal.Take();
    for (const char* entry :
         {"first create", "second create", "first destroy value", "second destroy value"}) {
        EXPECT_EQ(static_cast<std::size_t>(std::count(journal.begin(), journal.end(), entry)),
                  threads * rounds)
            << entry;
    }
    EXPECT_EQ(journal.size(), 4 * threads * rounds);
}

TEST_F(ThreadLocalAttach, AllEndsWithTheFirstFailure)
{
    JournalType first(m_Journal, "first");
    JournalType second(m_Journal, "second");
    second.m_OnCreate = []() -> void* { throw std::runtime_error("no value"); };
    EXPECT_THROW(ThreadLocalType::AttachProcessAll(), std::runtime_error);
    EXPECT_THROW(ThreadLocalType::AttachThreadAll(), std::runtime_error);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("second create", "second create"));
}

/// A type that does something else when a thread is attached.
class ReplacedAttach : public JournalType
{
public:
    using JournalType::JournalType;
    void AttachThread() override { ++m_Attached; }
    int m_Attached = 0;
};

TEST_F(ThreadLocalAttach, ThreadMayBeReplacedByADerivedClass)
{
    ReplacedAttach type(m_Journal);
    ThreadLocalType::AttachThreadAll();
    EXPECT_EQ(type.m_Attached, 1);
    EXPECT_THAT(m_Journal.Take(), IsEmpty());
    type.AttachProcess();
    EXPECT_EQ(type.m_Attached, 1);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
}

class ThreadLocalDetach : public Registry
{};

TEST_F(ThreadLocalDetach, ProcessDestroysNullThenFreesTheKey)
{
    JournalType type(m_Journal);
    type.GetValue();
    m_Journal.Take();
    type.m_OnDestroy = [&](void*) { EXPECT_EQ(pthread_setspecific(type.m_Key, nullptr), 0); };
    type.DetachProcess();
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type destroy null"));
    EXPECT_EQ(pthread_key_delete(type.m_Key), EINVAL);
    type.m_Key = s_NoKey;
}

TEST_F(ThreadLocalDetach, ProcessKeepsTheKeyWhenDestroyValueThrows)
{
    JournalType type(m_Journal);
    type.GetValue();
    type.m_OnDestroy = [](void*) { throw std::runtime_error("not destroyed"); };
    EXPECT_THROW(type.DetachProcess(), std::runtime_error);
    type.Free();
    type.m_Key = s_NoKey;
}

TEST_F(ThreadLocalDetach, AllEmptiesTheRegistryAndThrowsTheFirstFailure)
{
    NewType("first");
    NewType("second");
    NewType("third");
    ThreadLocalType::AttachProcessAll();
    m_Journal.Take();
    errno = 49;
    EXPECT_TRUE(
        Throws<SystemException>([] { ThreadLocalType::DetachProcessAll(); }, SystemFailure(49)));
    EXPECT_EQ(ThreadLocalType::s_AllTypes, nullptr);
    EXPECT_THAT(m_Journal.Take(),
                ElementsAre("third destroy null", "third deleted", "second destroy null",
                            "second deleted", "first destroy null", "first deleted"));
}

TEST_F(ThreadLocalDetach, AllDeletesEveryKeyTwice)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "keys are not interposed";
    }
    NewType("first");
    NewType("second");
    ThreadLocalType::AttachProcessAll();
    std::vector<std::pair<pthread_key_t, std::size_t>> deletions;
    const Hook hook(interposed::pthread_key_delete, [&](pthread_key_t key) {
        deletions.emplace_back(key, m_Journal.Take().size());
        return std::optional<int>();
    });
    m_Journal.Take();
    EXPECT_THROW(ThreadLocalType::DetachProcessAll(), SystemException);
    ASSERT_EQ(deletions.size(), 4U);
    EXPECT_EQ(deletions[0].first, deletions[1].first);
    EXPECT_EQ(deletions[2].first, deletions[3].first);
    EXPECT_NE(deletions[0].first, deletions[2].first);
    // Each deletion comes after one entry: the null value, then the destructor.
    for (const auto& [key, entries] : deletions) {
        EXPECT_EQ(entries, 1U);
    }
}

TEST_F(ThreadLocalDetach, AllUnlinksATypeBeforeItDetachesIt)
{
    JournalType* first = NewType("first");
    JournalType* second = NewType("second");
    second->m_OnDestroy = [&](void*) { EXPECT_EQ(ThreadLocalType::s_AllTypes, first); };
    first->m_OnDestroy = [&](void*) { EXPECT_EQ(ThreadLocalType::s_AllTypes, nullptr); };
    const unsigned int locks = ThreadLocalType::s_Mutex.GetLockCount();
    EXPECT_THROW(ThreadLocalType::DetachProcessAll(), SystemException);
    EXPECT_EQ(ThreadLocalType::s_Mutex.GetLockCount(), locks);
}

TEST_F(ThreadLocalDetach, AllFailsForATypeThatHadNoKey)
{
    NewType("type");
    errno = 50;
    EXPECT_TRUE(
        Throws<SystemException>([] { ThreadLocalType::DetachProcessAll(); }, SystemFailure(50)));
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type destroy null", "type deleted"));
}

TEST_F(ThreadLocalDetach, AllThrowsWhateverWasThrownFirstAsItIs)
{
    struct Special
    {
        int number;
    };
    static const Special* s_Thrown = nullptr;
    NewType("first")->m_OnDestroy = [](void*) { throw std::runtime_error("too late"); };
    NewType("second")->m_OnDestroy = [](void*) {
        try {
            throw Special{51};
        } catch (const Special& special) {
            s_Thrown = &special;
            throw;
        }
    };
    try {
        ThreadLocalType::DetachProcessAll();
        ADD_FAILURE() << "threw nothing";
    } catch (const Special& special) {
        EXPECT_EQ(&special, s_Thrown);
        EXPECT_EQ(special.number, 51);
    }
    EXPECT_EQ(ThreadLocalType::s_AllTypes, nullptr);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("second destroy null", "second deleted",
                                              "first destroy null", "first deleted"));
}

TEST_F(ThreadLocalDetach, AllSucceedsWhenNoDeletionFails)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "keys are not interposed";
    }
    NewType("type")->GetValue();
    const Hook hook(interposed::pthread_key_delete, [calls = 0](pthread_key_t) mutable {
        return ++calls == 2 ? std::optional<int>(0) : std::nullopt;
    });
    EXPECT_NO_THROW(ThreadLocalType::DetachProcessAll());
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create", "type destroy null", "type deleted"));
}

TEST_F(ThreadLocalDetach, AllDoesNotSwallowCancellation)
{
    NewType("first");
    JournalType* second = NewType("second");
    JournalType* third = NewType("third");
    third->m_OnDestroy = [](void*) { pthread_testcancel(); };
    EXPECT_TRUE(EndsCancelled([] {
        CancelMyself();
        ThreadLocalType::DetachProcessAll();
    }));
    EXPECT_EQ(ThreadLocalType::s_AllTypes, second);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("third destroy null"));
    delete third; // Already off the registry, and nobody else's any more.
    EXPECT_THROW(ThreadLocalType::DetachProcessAll(), SystemException);
    EXPECT_EQ(ThreadLocalType::s_AllTypes, nullptr);
}

class ThreadLocalThreadEnd : public Registry
{};

// The ending thread's value is taken for the type that disposes of its own value.
TEST_F(ThreadLocalThreadEnd, TakesTheValueForAType)
{
    JournalType owner(m_Journal, "owner");
    JournalType value(m_Journal, "value");
    JournalType inert(m_Journal, "inert");
    owner.m_OnCreate = [&] { return static_cast<ThreadLocalType*>(&value); };
    value.m_OnCreate = [&] { return static_cast<ThreadLocalType*>(&inert); };
    owner.Allocate(); // Before the value's key: the platform ends them in that order.
    value.Allocate();
    void* destroyed = nullptr;
    std::thread::id destroyer;
    value.m_OnDestroy = [&](void* what) {
        destroyed = what;
        destroyer = std::this_thread::get_id();
    };
    std::thread thread([&] {
        owner.GetValue();
        value.GetValue();
    });
    const std::thread::id id = thread.get_id();
    thread.join();
    EXPECT_THAT(m_Journal.Take(),
                ElementsAre("owner create", "value create", "value destroy value"));
    EXPECT_EQ(destroyed, static_cast<ThreadLocalType*>(&inert));
    EXPECT_EQ(destroyer, id);
}

TEST_F(ThreadLocalThreadEnd, DestroysNothingForAValueWithoutAValueOfItsOwn)
{
    JournalType owner(m_Journal, "owner");
    JournalType value(m_Journal, "value");
    owner.m_OnCreate = [&] { return static_cast<ThreadLocalType*>(&value); };
    OnAThread([&] { owner.GetValue(); });
    value.Allocate();
    OnAThread([&] { owner.GetValue(); });
    EXPECT_THAT(m_Journal.Take(), ElementsAre("owner create", "owner create"));
}

TEST_F(ThreadLocalThreadEnd, NeverDestroysATypeThatIsItsOwnValue)
{
    JournalType type(m_Journal);
    type.m_OnCreate = [&] { return static_cast<ThreadLocalType*>(&type); };
    OnAThread([&] { EXPECT_EQ(type.GetValue(), static_cast<ThreadLocalType*>(&type)); });
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
}

TEST_F(ThreadLocalThreadEnd, DoesNothingWithoutAValue)
{
    JournalType type(m_Journal);
    OnAThread([&] {
        type.GetValue();
        type.SetValue(nullptr);
    });
    OnAThread([] {});
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
}

class ThreadLocalDestructorCall : public Registry
{};

TEST_F(ThreadLocalDestructorCall, DisposesOfTheCallingThreadsValue)
{
    JournalType type(m_Journal);
    type.Destructor();
    EXPECT_THAT(m_Journal.Take(), IsEmpty());
    type.GetValue();
    OnAThread([&] { type.Destructor(); });
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
    void* destroyed = nullptr;
    type.m_OnDestroy = [&](void* value) { destroyed = value; };
    type.Destructor();
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type destroy value"));
    EXPECT_EQ(destroyed, &type.m_Value);
    EXPECT_EQ(pthread_getspecific(type.m_Key), &type.m_Value);
}

TEST_F(ThreadLocalDestructorCall, DoesNotAskThePlatformWithoutAKey)
{
    if (isThreadSanitized) {
        GTEST_SKIP() << "keys are not interposed";
    }
    JournalType type(m_Journal);
    const CallCounter reads("pthread_getspecific");
    type.Destructor();
    EXPECT_EQ(reads.GetCallCount(), 0U);
}

class ThreadLocalInterface : public Registry
{};

TEST_F(ThreadLocalInterface, KeepsItsVirtualSlotsInOrder)
{
    auto* const type = NewType("type");
    ThreadLocalType* const base = type;
    type->Allocate();
    void** const slots = *reinterpret_cast<void***>(base);
    const auto call = [&](std::size_t slot, auto... arguments) {
        reinterpret_cast<void (*)(ThreadLocalType*, decltype(arguments)...)>(slots[slot])(
            base, arguments...);
    };
    call(2);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create")); // AttachThread
    EXPECT_EQ(pthread_getspecific(type->m_Key), &type->m_Value);
    call(3, static_cast<void*>(&type->m_Value));
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type destroy value"));
    EXPECT_EQ(reinterpret_cast<void* (*)(ThreadLocalType*)>(slots[4])(base), &type->m_Value);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type create"));
    call(5);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type detach thread"));
    call(1); // Deletes it, as the leak checker sees.
    EXPECT_THAT(m_Journal.Take(), ElementsAre("type deleted"));

    alignas(JournalType) unsigned char memory[sizeof(JournalType)];
    auto* const placed = new (memory) JournalType(m_Journal, "placed");
    void** const placedSlots = *reinterpret_cast<void***>(static_cast<ThreadLocalType*>(placed));
    reinterpret_cast<void (*)(ThreadLocalType*)>(placedSlots[0])(placed);
    EXPECT_THAT(m_Journal.Take(), ElementsAre("placed deleted"));
}

TEST_F(ThreadLocalInterface, KeepsItsFieldsInOrder)
{
    const JournalType type(m_Journal);
    const ThreadLocalType& base = type;
    const auto offsetOf = [&](const void* part) {
        return static_cast<const char*>(part) - reinterpret_cast<const char*>(&base);
    };
    EXPECT_EQ(offsetOf(&base.m_Key), static_cast<std::ptrdiff_t>(sizeof(void*)));
    EXPECT_EQ(sizeof base.m_Key, 4U);
    EXPECT_EQ(offsetOf(&base.m_Next), static_cast<std::ptrdiff_t>(2 * sizeof(void*)));
    EXPECT_EQ(sizeof(ThreadLocalType), 3 * sizeof(void*));
}

/// Leaves by `exit` and returns how that ended.
int ExitWith(bool registryHeld)
{
    ChildProcess child([registryHeld] {
        const rlimit noCore{};
        setrlimit(RLIMIT_CORE, &noCore);
        if (registryHeld) {
            ThreadLocalType::s_Mutex.Lock();
        }
        std::exit(7);
        return 0;
    });
    return child.WaitForExitStatus();
}

TEST(ThreadLocalRegistry, IsDestroyedWhenTheProcessLeaves)
{
    EXPECT_EQ(ExitWith(false), 7);
    if (isThreadSanitized) {
        GTEST_SKIP() << "it reports the destruction of a held mutex";
    }
    EXPECT_EQ(ExitWith(true), -SIGABRT);
}

} // namespace
