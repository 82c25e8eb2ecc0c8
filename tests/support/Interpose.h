#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <vector>

/// Calls of the C library that tests can watch, replace or make fail.
///
/// A test program defines the function itself, so the shared library under test binds to it, and
/// hands every call to an `Interposed` object. That forwards to the real function unless a test
/// has installed a `Hook` or armed a `FailingCall`.
namespace velahost_test {

/// How a function tells its caller that it failed.
enum class FailureStyle {
    MinusOneAndErrno, ///< Returns -1 (or the pointer made of it) and sets `errno`.
    ErrorNumber,      ///< Returns the error number; `errno` stays as it is.
    NullAndErrno,     ///< Returns null and sets `errno`.
};

/// What all interposed functions have in common: a name, a count and a plan of failures.
class InterposedBase
{
public:
    InterposedBase(const InterposedBase&) = delete;
    InterposedBase& operator=(const InterposedBase&) = delete;

    const char* GetName() const { return m_Name; }
    const char* GetSymbol() const { return m_Symbol; }

    /// Every interposed function of this program.
    static std::vector<InterposedBase*> All();
    /// The interposed function of that name; ends the program when there is none.
    static InterposedBase& Find(std::string_view name);

protected:
    // Constant-initialised: the C library may call before any constructor has run.
    constexpr InterposedBase(const char* name, const char* symbol) : m_Name(name), m_Symbol(symbol)
    {}
    ~InterposedBase() = default;

    /// The error that this call is to fail with, or 0.
    int NextError();
    static void* FindReal(const char* symbol);

    /// Set while this thread runs a hook: what the hook itself calls is forwarded.
    static bool& InsideHook();

private:
    friend class FailingCall;

    const char* m_Name;
    const char* m_Symbol;
    std::atomic<bool> m_Armed{false};
    std::atomic<int> m_OnlyThread{0};
    std::atomic<unsigned int> m_Calls{0};
    std::atomic<unsigned int> m_First{0};
    std::atomic<unsigned int> m_Last{0};
    std::atomic<int> m_Error{0};
};

/// Makes interposed functions known to `InterposedBase::All()` and `Find()`; one static object per
/// source file that defines some.
class Registration
{
public:
    Registration(std::initializer_list<InterposedBase*> functions);
};

template <typename Signature>
class Interposed;

template <typename Result, typename... Arguments>
class Interposed<Result(Arguments...)> final : public InterposedBase
{
public:
    using HookFunction = std::function<std::optional<Result>(Arguments...)>;

    /// `symbol` is what the C library calls the real function, where that is another name.
    constexpr Interposed(const char* name, FailureStyle style, const char* symbol = nullptr)
        : InterposedBase(name, symbol != nullptr ? symbol : name), m_Style(style)
    {}

    /// What the interposing function does with its arguments.
    Result Call(Arguments... arguments)
    {
        if (!InsideHook()) {
            if (const int error = NextError(); error != 0) {
                return Fail(error);
            }
            if (const HookFunction* hook = m_Hook.load(std::memory_order_acquire)) {
                if (const std::optional<Result> result = Run(*hook, arguments...)) {
                    return *result;
                }
            }
        }
        return Real(arguments...);
    }

    /// The real function.
    Result Real(Arguments... arguments)
    {
        void* real = m_Real.load(std::memory_order_relaxed);
        if (real == nullptr) {
            real = FindReal(GetSymbol());
            m_Real.store(real, std::memory_order_relaxed);
        }
        return reinterpret_cast<Result (*)(Arguments...)>(real)(arguments...);
    }

    /// Calls go to `function` as to the real one from now on.
    void ReplaceReal(Result (*function)(Arguments...))
    {
        m_Real.store(reinterpret_cast<void*>(function), std::memory_order_relaxed);
    }

private:
    template <typename>
    friend class Hook;

    static std::optional<Result> Run(const HookFunction& hook, Arguments... arguments)
    {
        struct Inside
        {
            Inside() { InsideHook() = true; }
            ~Inside() { InsideHook() = false; }
        } inside;
        return hook(arguments...);
    }

    Result Fail(int error) const
    {
        if (m_Style == FailureStyle::ErrorNumber) {
            if constexpr (std::is_integral_v<Result>) {
                return static_cast<Result>(error);
            }
        }
        errno = error;
        if constexpr (std::is_pointer_v<Result>) {
            return m_Style == FailureStyle::NullAndErrno
                       ? nullptr
                       : reinterpret_cast<Result>(static_cast<std::intptr_t>(-1));
        } else {
            return static_cast<Result>(-1);
        }
    }

    FailureStyle m_Style;
    std::atomic<void*> m_Real{nullptr};
    std::atomic<const HookFunction*> m_Hook{nullptr};
    // Hooks that were taken away, never freed: another thread may still be inside one, at exit too.
    std::vector<const HookFunction*>* m_Retired = nullptr;
};

/// While it lives, every call of the function, on any thread, goes to `action` first: a value is
/// what the caller gets, `std::nullopt` means the real function. What `action` itself calls is
/// forwarded. One hook per function at a time; `action` is kept until the program ends, but what
/// it refers to must outlive its last call.
template <typename Signature>
class Hook
{
public:
    Hook(Interposed<Signature>& function, typename Interposed<Signature>::HookFunction action)
        : m_Function(function)
    {
        using HookFunction = typename Interposed<Signature>::HookFunction;
        if (m_Function.m_Retired == nullptr) {
            m_Function.m_Retired = new std::vector<const HookFunction*>;
        }
        m_Function.m_Retired->push_back(new HookFunction(std::move(action)));
        m_Function.m_Hook.store(m_Function.m_Retired->back(), std::memory_order_release);
    }
    Hook(const Hook&) = delete;
    Hook& operator=(const Hook&) = delete;
    ~Hook() { m_Function.m_Hook.store(nullptr, std::memory_order_release); }

private:
    Interposed<Signature>& m_Function;
};

/// Which threads' calls an armed failure counts and hits.
enum class Scope { CallingThread, AnyThread };

/// While it lives, calls of the named function are counted from 1, and the calls number `first` to
/// `first + count - 1` fail with `error`.
class FailingCall
{
public:
    static constexpr unsigned int forGood = ~0U;

    FailingCall(std::string_view function, int error, unsigned int first = 1,
                unsigned int count = 1, Scope scope = Scope::CallingThread);
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;
    ~FailingCall();

    /// Calls since construction, the failed ones included.
    unsigned int GetCallCount() const { return m_Function.m_Calls.load(); }
    /// True when at least one call has failed.
    bool WasHit() const;

private:
    InterposedBase& m_Function;
};

/// Counts the calls of the named function; none fails.
class CallCounter : public FailingCall
{
public:
    explicit CallCounter(std::string_view function, Scope scope = Scope::CallingThread)
        : FailingCall(function, 0, forGood, 1, scope)
    {}
};

} // namespace velahost_test
