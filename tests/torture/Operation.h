#pragma once

#include "support/ThrownException.h"

#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <typeinfo>
#include <vector>

/// The library's public operations, one by one, with what is promised of each failure: read
/// by the engine (Torture.h), written as tables (the *Operations.cpp).
namespace velahost_test {

/// What an operation returned, in a few words. Holds them itself: memory may be failing.
class Told
{
public:
    Told(const char* words);
    /// A number or truth value that an operation returned.
    static Told Number(long long number);
    /// The same with the `errno` of the moment unless the number is 0 or more.
    static Told Result(long long number);
    /// "true", or "false" with the `errno` of the moment.
    static Told Success(bool succeeded);

    const char* Get() const { return m_Words; }

private:
    Told() = default;

    char m_Words[80] = "";
};

/// Thrown by a test's hook to end an operation that would go on for ever.
struct Interrupted
{
    const char* words;
};

/// A fresh start for one run of an operation: the objects it needs, alone or with peers.
class Scene
{
public:
    Scene() = default;
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;
    /// Takes everything down, whatever has failed; the objects are used once more by that.
    virtual ~Scene() = default;

    virtual Told Run() = 0;
    /// All that a caller, another thread or another process could see of the objects.
    virtual std::string GetState() = 0;
};

template <typename Fixture>
class SceneOf final : public Scene
{
public:
    explicit SceneOf(Told (*run)(Fixture&)) : m_Run(run) {}
    // By then nothing fails any more, whatever the members' destructors may do.
    ~SceneOf() noexcept override {}

    Told Run() override { return m_Run(m_Fixture); }
    std::string GetState() override { return m_Fixture.GetState(); }

private:
    Fixture m_Fixture;
    Told (*m_Run)(Fixture&);
};

/// What becomes of an operation. What is not said by a modifier is as it says here.
class Effect
{
public:
    enum class Kind {
        Usual, ///< The outcome of an operation in which nothing fails.
        Outcome,
        EndsProcess, ///< By `std::terminate`.
    };

    /// `state` afterwards; otherwise that before the operation.
    Effect Leaves(std::string state) const&;
    /// One of these states afterwards: how far the operation gets is not for the table to say.
    Effect LeavesOneOf(std::vector<std::string> newStates) const&;
    /// `lines` on standard output before those of an exception that comes out.
    Effect Prints(std::string lines) const&;
    /// Or these lines instead.
    Effect OrPrints(std::string lines) const&;
    /// The operation, made once more on the same objects, tells `words`; otherwise what it usually
    /// tells.
    Effect Then(std::string words) const&;
    /// The operation can't be made once more on the same objects.
    Effect ThenNoMore() const&;
    /// Memory is left to somebody else than the calling thread, or lost, so it isn't balanced.
    Effect KeepingMemory() const&;

    Kind kind = Kind::Usual;
    std::string told = {};
    /// Those allowed; none: that before the operation.
    std::vector<std::string> states = {};
    std::string printed = {};
    std::optional<std::string> printedOtherwise = std::nullopt;
    std::optional<std::string> again = std::nullopt;
    bool mayRunAgain = true;
    bool keepsMemory = false;
};

/// The failure goes unnoticed.
Effect Ignored();
/// The operation returns and tells `words`.
Effect Tells(std::string words);
Effect EndsProcess();
/// The same without a line on standard output.
Effect Unlogged(const Effect& effect);
/// As the engine tells an exception.
std::string Describe(const std::type_info& type, const Failure& failure);
/// `std::bad_alloc`, without a line printed.
Effect OutOfMemory();

/// An `E`, logged, comes out.
template <typename E>
Effect Throws(const Failure& failure)
{
    Effect effect;
    effect.kind = Effect::Kind::Outcome;
    effect.told = Describe(typeid(E), failure);
    effect.printed = failure.LogLine();
    return effect;
}

/// A `SystemException` of the operating-system layer's one throw site. 0 for calls that return
/// their error number.
Effect ThrowsSystem(int errnoValue);

/// One way for an operation to fail: the call number `call` of `function` fails with `error`, once,
/// or from then on for good.
struct Row
{
    static constexpr unsigned int each = 0;

    const char* function;
    unsigned int call; ///< From 1; `each` means every one that has no row with its number.
    int error;
    Effect once;
    std::optional<Effect> forGood = std::nullopt; ///< As `once` unless given.
};

/// What happens where memory runs out: the allocation number `call`, as above.
struct MemoryRow
{
    unsigned int call;
    Effect once;
    std::optional<Effect> forGood = std::nullopt;
};

/// A public operation in one situation.
struct Operation
{
    std::string name; ///< Class_Operation_Situation.
    std::function<std::unique_ptr<Scene>()> prepare;
    Effect usual;
    std::vector<Row> failures = {};
    std::vector<MemoryRow> memory = {{Row::each, OutOfMemory()}};
};

/// For GoogleTest.
inline void PrintTo(const Operation& operation, std::ostream* out)
{
    *out << operation.name;
}

/// A scene in which a fresh `Fixture` is what `run` works on.
template <typename Fixture>
std::function<std::unique_ptr<Scene>()> With(Told (*run)(Fixture&))
{
    return [run] { return std::make_unique<SceneOf<Fixture>>(run); };
}

// The tables.
std::vector<Operation> ExceptionOperations();
std::vector<Operation> LockOperations();
std::vector<Operation> ThreadOperations();
std::vector<Operation> ThreadLocalOperations();
std::vector<Operation> TimerOperations();
std::vector<Operation> ProcessOperations();
std::vector<Operation> SocketOperations();
std::vector<Operation> QueueOperations();
std::vector<Operation> TransportOperations();
std::vector<Operation> ReaderOperations();
std::vector<Operation> SharingOperations();

/// All of them.
std::vector<Operation> AllOperations();

} // namespace velahost_test
