#include "Operation.h"

#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <sstream>
#include <utility>

namespace velahost_test {

namespace {

std::string Demangle(const std::type_info& type)
{
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    return name ? name.get() : type.name();
}

} // namespace

Told::Told(const char* words)
{
    std::snprintf(m_Words, sizeof m_Words, "%s", words);
}

Told Told::Number(long long number)
{
    Told told;
    std::snprintf(told.m_Words, sizeof told.m_Words, "%lld", number);
    return told;
}

Told Told::Result(long long number)
{
    const int error = errno;
    if (number >= 0) {
        return Number(number);
    }
    Told told;
    std::snprintf(told.m_Words, sizeof told.m_Words, "%lld, errno %d", number, error);
    return told;
}

Told Told::Success(bool succeeded)
{
    const int error = errno;
    if (succeeded) {
        return "true";
    }
    Told told;
    std::snprintf(told.m_Words, sizeof told.m_Words, "false, errno %d", error);
    return told;
}

Effect Effect::Leaves(std::string newState) const&
{
    return LeavesOneOf({std::move(newState)});
}

Effect Effect::LeavesOneOf(std::vector<std::string> newStates) const&
{
    Effect changed = *this;
    changed.states = std::move(newStates);
    return changed;
}

Effect Effect::Prints(std::string lines) const&
{
    Effect changed = *this;
    changed.printed = std::move(lines) + printed;
    return changed;
}

Effect Effect::OrPrints(std::string lines) const&
{
    Effect changed = *this;
    changed.printedOtherwise = std::move(lines);
    return changed;
}

Effect Effect::Then(std::string words) const&
{
    Effect changed = *this;
    changed.again = std::move(words);
    return changed;
}

Effect Effect::ThenNoMore() const&
{
    Effect changed = *this;
    changed.mayRunAgain = false;
    return changed;
}

Effect Effect::KeepingMemory() const&
{
    Effect changed = *this;
    changed.keepsMemory = true;
    return changed;
}

Effect Ignored()
{
    return {};
}

Effect Tells(std::string words)
{
    Effect effect;
    effect.kind = Effect::Kind::Outcome;
    effect.told = std::move(words);
    return effect;
}

Effect EndsProcess()
{
    Effect effect;
    effect.kind = Effect::Kind::EndsProcess;
    return effect;
}

Effect Unlogged(const Effect& effect)
{
    Effect changed = effect;
    changed.printed.clear();
    return changed;
}

std::string Describe(const std::type_info& type, const Failure& failure)
{
    std::ostringstream text;
    text << Demangle(type) << ' ' << failure;
    return text.str();
}

Effect OutOfMemory()
{
    return Tells("std::bad_alloc");
}

Effect ThrowsSystem(int errnoValue)
{
    return Throws<VelaHost_Utility::SystemException>(SystemFailure(errnoValue));
}

std::vector<Operation> AllOperations()
{
    std::vector<Operation> all;
    for (const auto table :
         {ExceptionOperations, LockOperations, ThreadOperations, ThreadLocalOperations,
          TimerOperations, ProcessOperations, SocketOperations, QueueOperations,
          TransportOperations, ReaderOperations, SharingOperations}) {
        for (Operation& operation : table()) {
            all.push_back(std::move(operation));
        }
    }
    return all;
}

} // namespace velahost_test
