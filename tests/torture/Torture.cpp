#include "Torture.h"

#include "support/CapturedStdout.h"
#include "support/ChildProcess.h"
#include "support/FailingAllocation.h"
#include "support/FileState.h"
#include "support/Interpose.h"
#include "support/Sanitizers.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_Ipc/IpcMsgException.h>
#include <VelaHost_Ipc/IpcSocketException.h>
#include <internal/unix/OSSystem.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <list>
#include <ostream>
#include <set>
#include <string_view>
#include <sys/mman.h>
#include <tuple>
#include <utility>

namespace velahost_test {

namespace {

using VelaHost_Utility::Exception;

/// True for a function whose failure is not tried.
bool IsLeftAlone(std::string_view function)
{
    // It always succeeds.
    if (function == "umask") {
        return true;
    }
    // Most of its calls are the sanitizer's then.
    return isAddressSanitized && function == "pthread_getspecific";
}

constexpr unsigned int s_Once = 1;
// Not quite: what ignores its failures and tries again must end.
constexpr unsigned int s_ForGood = 1000;

/// The calls of `close` that are to fail. The system releases the descriptor even so.
struct ClosePlan
{
    bool armed = false;
    unsigned int calls = 0;
    unsigned int first = 0;
    unsigned int count = 0;
    int error = 0;

    bool Hits() { return armed && ++calls >= first && calls - first < count; }
};

thread_local ClosePlan s_ClosePlan;

/// What this process has, as far as an operation could leak it.
struct Holdings
{
    unsigned int descriptors;
    long blocks;
    std::size_t mappings;

    bool operator==(const Holdings&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Holdings& holdings)
{
    return out << holdings.descriptors << " descriptors, " << holdings.blocks << " blocks, "
               << holdings.mappings << " mappings";
}

/// Watches what the process takes and gives back; one per process at a time.
class Ledger
{
public:
    Ledger()
        : m_Map(interposed::mmap,
                [this](void* hint, std::size_t length, int protection, int flags, int fd,
                       off_t offset) {
                    void* address =
                        interposed::mmap.Real(hint, length, protection, flags, fd, offset);
                    if (address != MAP_FAILED) {
                        Note(address, length);
                    }
                    return address;
                }),
          m_Unmap(interposed::munmap,
                  [this](void* address, std::size_t length) {
                      Forget(address);
                      return interposed::munmap.Real(address, length);
                  }),
          m_Close(interposed::close, [](int fd) -> std::optional<int> {
              if (!s_ClosePlan.Hits()) {
                  return std::nullopt;
              }
              interposed::close.Real(fd);
              errno = s_ClosePlan.error;
              return -1;
          })
    {}

    Holdings Count() const
    {
        return {CountDescriptors(), m_Blocks.GetLiveCount(), CountMappings()};
    }

    /// Unmaps what an operation was not allowed to.
    void ReleaseMappings()
    {
        for (Mapping& mapping : m_Mappings) {
            if (mapping.address != nullptr) {
                interposed::munmap.Real(mapping.address, mapping.length);
                mapping.address = nullptr;
            }
        }
    }

private:
    // A fixed number of them: the hooks must not allocate.
    struct Mapping
    {
        void* address = nullptr;
        std::size_t length = 0;
    };

    void Note(void* address, std::size_t length) { *FindMapping(nullptr) = {address, length}; }
    void Forget(void* address)
    {
        if (const auto found = FindMapping(address); found != m_Mappings.end()) {
            found->address = nullptr;
        }
    }
    std::array<Mapping, 64>::iterator FindMapping(const void* address)
    {
        return std::find_if(m_Mappings.begin(), m_Mappings.end(),
                            [address](const Mapping& m) { return m.address == address; });
    }
    std::size_t CountMappings() const
    {
        return static_cast<std::size_t>(
            std::count_if(m_Mappings.begin(), m_Mappings.end(),
                          [](const Mapping& m) { return m.address != nullptr; }));
    }

    std::array<Mapping, 64> m_Mappings;
    AllocationBalance m_Blocks;
    Hook<void*(void*, std::size_t, int, int, int, off_t)> m_Map;
    Hook<int(void*, std::size_t)> m_Unmap;
    Hook<int(int)> m_Close;
};

/// What is to fail while an operation runs.
struct Plan
{
    std::string_view function = {}; ///< None when empty.
    int error = 0;
    unsigned int firstCall = 0;
    unsigned int callCount = 0;
    unsigned int firstAllocation = 0; ///< 0: none.
    unsigned int allocationCount = 0;
};

std::ostream& operator<<(std::ostream& out, const Plan& plan)
{
    const auto tellHowOften = [&out](unsigned int count) {
        out << (count == s_Once ? " fails once" : " fails for good");
    };
    if (!plan.function.empty()) {
        out << plan.function << " call " << plan.firstCall;
        tellHowOften(plan.callCount);
        out << " with errno " << plan.error;
    }
    if (plan.firstAllocation != 0) {
        out << (plan.function.empty() ? "" : ", ") << "allocation " << plan.firstAllocation;
        tellHowOften(plan.allocationCount);
    }
    return out;
}

/// Puts a plan into force while it lives.
class Armed
{
public:
    /// `allocationHit` is told at the end.
    Armed(const Plan& plan, bool& allocationHit) : m_AllocationHit(allocationHit)
    {
        if (plan.function == interposed::close.GetName()) {
            s_ClosePlan = {true, 0, plan.firstCall, plan.callCount, plan.error};
        } else if (!plan.function.empty()) {
            m_Calls.emplace(plan.function, plan.error, plan.firstCall, plan.callCount);
        }
        if (plan.firstAllocation != 0) {
            m_Allocations.emplace(plan.firstAllocation, plan.allocationCount);
        }
    }
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;
    ~Armed()
    {
        m_AllocationHit = m_Allocations && m_Allocations->WasHit();
        m_Allocations.reset();
        s_ClosePlan.armed = false;
    }

private:
    bool& m_AllocationHit;
    std::optional<FailingCall> m_Calls;
    std::optional<FailingAllocation> m_Allocations;
};

struct Outcome
{
    std::string told;
    std::string printed;
    std::string state;
    bool allocationHit = false;
};

std::string Describe(const Exception& e)
{
    Failure failure = velahost_test::Describe<Exception>(e);
    if (const auto* system = dynamic_cast<const VelaHost_Utility::SystemException*>(&e)) {
        failure = velahost_test::Describe(*system);
    } else if (const auto* socket = dynamic_cast<const VelaHost_Ipc::IpcSocketException*>(&e)) {
        failure = velahost_test::Describe(*socket);
    } else if (const auto* queue = dynamic_cast<const VelaHost_Ipc::IpcMsgException*>(&e)) {
        failure = velahost_test::Describe(*queue);
    }
    std::string text = velahost_test::Describe(typeid(e), failure);
    if (e.GetContext().m_CompName != nullptr ||
        e.GetContext().m_Logger != VelaHost_Utility::DefaultExceptionLogger) {
        text += " from a foreign context";
    }
    return text;
}

Told RunArmed(Scene& scene, const Plan& plan, bool& allocationHit)
{
    const Armed armed(plan, allocationHit);
    errno = 0;
    return scene.Run();
}

Outcome Perform(Scene& scene, const Plan& plan)
{
    Outcome outcome;
    CapturedStdout output;
    try {
        outcome.told = RunArmed(scene, plan, outcome.allocationHit).Get();
    } catch (const Exception& e) {
        outcome.told = Describe(e);
    } catch (const std::exception& e) {
        outcome.told = e.what();
    } catch (const Interrupted& interrupted) {
        outcome.told = interrupted.words;
    }
    outcome.printed = output.Stop();
    outcome.state = scene.GetState();
    return outcome;
}

/// True when the plan, in a process of its own, makes the operation end it.
bool EndsItsProcess(const Operation& operation, const Plan& plan)
{
    const std::unique_ptr<Scene> scene = operation.prepare();
    ChildProcess child([&] {
        // The language's last words about it are not for the test's output.
        if (std::freopen("/dev/null", "w", stderr) == nullptr) {
            return 1;
        }
        Perform(*scene, plan);
        return 0;
    });
    return child.WaitForExitStatus() == -SIGABRT;
}

class Torturer
{
public:
    explicit Torturer(const Operation& operation) : m_Operation(operation)
    {
        // What is made once per process: the search for the trace library, the hooks' lists.
        CapturedStdout output;
        EXPECT_THROW(VelaHost_OS::ThrowSystemError(), VelaHost_Utility::SystemException);
        m_Operation.prepare();
        output.Stop();
        const Holdings before = m_Ledger.Count();
        m_Operation.prepare()->GetState();
        m_Idle = Difference(before);
    }

    /// The operation with nothing failing.
    void CheckUsual() { Check({}, m_Operation.usual); }

    void CheckCalls()
    {
        std::set<const Row*> reached;
        for (const auto& [function, number] : ListCalls()) {
            const std::vector<const Row*> rows = FindRows(function, number);
            EXPECT_FALSE(rows.empty()) << function << " call " << number << ": no row in the table";
            for (const Row* row : rows) {
                reached.insert(row);
                const Plan once{function, row->error, number, s_Once};
                Check(once, row->once);
                const Plan forGood{function, row->error, number, s_ForGood};
                Check(forGood, row->forGood.value_or(row->once));
            }
        }
        for (const Row& row : m_Operation.failures) {
            EXPECT_TRUE(reached.count(&row) != 0 || !IsInterposed(row.function))
                << row.function << " call " << row.call << ": nothing comes of this row";
        }
    }

    void CheckAllocations()
    {
        for (unsigned int first = 1; CheckAllocation(first); ++first) {
        }
    }

    /// A failed call and then no memory for its exception: std::bad_alloc comes out instead. Not
    /// where the operation itself allocates, which would come first.
    void CheckAllocationsOfFailures()
    {
        if (CountUsualAllocations() != 0) {
            return;
        }
        for (const auto& [function, number] : ListCalls()) {
            for (const Row* row : FindRows(function, number)) {
                // What does not come out as an exception has none to make.
                if (row->once.told.find("Exception") == std::string::npos) {
                    continue;
                }
                const Plan plan{function, row->error, number, s_Once};
                for (unsigned int first = 1; CheckFailureWithoutMemory(plan, *row, first);
                     ++first) {
                }
            }
        }
    }

    /// Failures that were made to happen.
    unsigned int GetFailureCount() const { return m_FailureCount; }

private:
    struct Call
    {
        std::string_view function;
        unsigned int number;
    };

    static std::vector<std::string_view> FunctionNames()
    {
        std::vector<std::string_view> names;
        for (const InterposedBase* function : InterposedBase::All()) {
            const std::string_view name = function->GetName();
            if (!IsLeftAlone(name)) {
                names.push_back(name);
            }
        }
        return names;
    }

    static bool IsInterposed(std::string_view function)
    {
        const std::vector<std::string_view> names = FunctionNames();
        return std::find(names.begin(), names.end(), function) != names.end();
    }

    /// Every fallible call that the operation makes when nothing fails.
    std::vector<Call> ListCalls()
    {
        const std::unique_ptr<Scene> scene = m_Operation.prepare();
        std::vector<Call> list;
        CapturedStdout output;
        std::list<std::pair<std::string_view, CallCounter>> counters;
        for (const std::string_view function : FunctionNames()) {
            counters.emplace_back(std::piecewise_construct, std::forward_as_tuple(function),
                                  std::forward_as_tuple(function));
        }
        try {
            scene->Run();
        } catch (...) {
            // As it usually does.
        }
        for (const auto& [function, counter] : counters) {
            const unsigned int count = counter.GetCallCount();
            for (unsigned int number = 1; number <= count; ++number) {
                list.push_back({function, number});
            }
        }
        return list;
    }

    unsigned int CountUsualAllocations()
    {
        const std::unique_ptr<Scene> scene = m_Operation.prepare();
        CapturedStdout output;
        const FailingAllocation allocations(FailingAllocation::forGood);
        try {
            scene->Run();
        } catch (...) {
            // As it usually does.
        }
        return allocations.GetCallCount();
    }

    /// Those for that very call, else those for each.
    std::vector<const Row*> FindRows(std::string_view function, unsigned int call) const
    {
        std::vector<const Row*> found;
        for (const unsigned int wanted : {call, Row::each}) {
            for (const Row& row : m_Operation.failures) {
                if (row.function == function && row.call == wanted) {
                    found.push_back(&row);
                }
            }
            if (!found.empty()) {
                break;
            }
        }
        return found;
    }

    Holdings Difference(const Holdings& before) const
    {
        const Holdings now = m_Ledger.Count();
        return {now.descriptors - before.descriptors, now.blocks - before.blocks,
                now.mappings - before.mappings};
    }

    void Check(const Plan& plan, const Effect& expected)
    {
        ++m_FailureCount;
        std::ostringstream what;
        what << plan;
        SCOPED_TRACE(what.str());
        if (expected.kind == Effect::Kind::EndsProcess) {
            EXPECT_TRUE(EndsItsProcess(m_Operation, plan));
            return;
        }
        const Effect& effect = expected.kind == Effect::Kind::Usual ? m_Operation.usual : expected;
        const Holdings before = m_Ledger.Count();
        {
            const std::unique_ptr<Scene> scene = m_Operation.prepare();
            const std::string stateBefore = scene->GetState();
            const Outcome outcome = Perform(*scene, plan);
            EXPECT_EQ(outcome.told, effect.told);
            if (outcome.printed != effect.printedOtherwise) {
                EXPECT_EQ(outcome.printed, effect.printed);
            }
            CheckState(outcome, expected, stateBefore);
            if (expected.kind == Effect::Kind::Outcome && !plan.function.empty()) {
                CheckAgain(*scene, expected);
            }
        }
        CheckBalance(before, expected);
    }

    void CheckState(const Outcome& outcome, const Effect& expected,
                    const std::string& stateBefore) const
    {
        std::vector<std::string> states = expected.states;
        if (expected.kind == Effect::Kind::Usual) {
            states = m_Operation.usual.states;
        }
        if (states.empty()) {
            states = {stateBefore};
        }
        EXPECT_THAT(states, testing::Contains(outcome.state));
    }

    /// Nothing fails any more.
    void CheckAgain(Scene& scene, const Effect& effect) const
    {
        if (effect.mayRunAgain) {
            const Outcome again = Perform(scene, {});
            EXPECT_EQ(again.told, effect.again.value_or(m_Operation.usual.told)) << "made again";
        }
    }

    void CheckBalance(const Holdings& before, const Effect& effect)
    {
        Holdings left = Difference(before);
        if (effect.keepsMemory) {
            left.blocks = m_Idle.blocks;
            left.mappings = m_Idle.mappings;
            m_Ledger.ReleaseMappings();
        }
        EXPECT_EQ(left, m_Idle) << "left behind";
    }

    /// False when there are not that many allocations.
    bool CheckAllocation(unsigned int first)
    {
        const MemoryRow& row = FindMemoryRow(first);
        bool hit = false;
        for (const unsigned int count : {s_Once, s_ForGood}) {
            const Effect& expected = count == s_Once ? row.once : row.forGood.value_or(row.once);
            const Effect& effect =
                expected.kind == Effect::Kind::Usual ? m_Operation.usual : expected;
            Plan plan;
            plan.firstAllocation = first;
            plan.allocationCount = count;
            std::ostringstream what;
            what << plan;
            SCOPED_TRACE(what.str());
            const Holdings before = m_Ledger.Count();
            {
                const std::unique_ptr<Scene> scene = m_Operation.prepare();
                const std::string stateBefore = scene->GetState();
                const Outcome outcome = Perform(*scene, plan);
                hit = outcome.allocationHit;
                if (!hit) {
                    return false;
                }
                ++m_FailureCount;
                EXPECT_EQ(outcome.told, effect.told);
                if (outcome.printed != effect.printedOtherwise) {
                    EXPECT_EQ(outcome.printed, effect.printed);
                }
                CheckState(outcome, expected, stateBefore);
                CheckAgain(*scene, expected);
            }
            CheckBalance(before, expected);
        }
        return hit;
    }

    const MemoryRow& FindMemoryRow(unsigned int call) const
    {
        const std::vector<MemoryRow>& rows = m_Operation.memory;
        for (const unsigned int wanted : {call, Row::each}) {
            const auto found = std::find_if(rows.begin(), rows.end(), [wanted](const MemoryRow& r) {
                return r.call == wanted;
            });
            if (found != rows.end()) {
                return *found;
            }
        }
        return rows.front();
    }

    /// False when there are not that many allocations.
    bool CheckFailureWithoutMemory(Plan plan, const Row& row, unsigned int first)
    {
        plan.firstAllocation = first;
        plan.allocationCount = s_Once;
        std::ostringstream what;
        what << plan;
        SCOPED_TRACE(what.str());
        const Holdings before = m_Ledger.Count();
        {
            const std::unique_ptr<Scene> scene = m_Operation.prepare();
            const std::string stateBefore = scene->GetState();
            const Outcome outcome = Perform(*scene, plan);
            if (!outcome.allocationHit) {
                return false;
            }
            ++m_FailureCount;
            EXPECT_EQ(outcome.told, OutOfMemory().told);
            // Not logged; what the operation itself prints may have come first.
            EXPECT_TRUE(row.once.printed.starts_with(outcome.printed)) << outcome.printed;
            EXPECT_NE(outcome.printed, row.once.printed);
            CheckState(outcome, row.once, stateBefore);
        }
        CheckBalance(before, row.once);
        return true;
    }

    const Operation& m_Operation;
    Ledger m_Ledger;
    Holdings m_Idle{};
    unsigned int m_FailureCount = 0;
};

} // namespace

void TortureByCalls(const Operation& operation)
{
    Torturer torturer(operation);
    torturer.CheckUsual();
    torturer.CheckCalls();
    std::printf("torture: %u failures\n", torturer.GetFailureCount());
}

void TortureByAllocations(const Operation& operation)
{
    Torturer torturer(operation);
    torturer.CheckAllocations();
    torturer.CheckAllocationsOfFailures();
    std::printf("torture: %u failures\n", torturer.GetFailureCount());
}

} // namespace velahost_test
