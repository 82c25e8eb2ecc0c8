#pragma once

#include <VelaHost_Utility/Exception.h>

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <typeinfo>

namespace velahost_test {

/// All that a reader of the trace and a caller can see of a failure.
struct Failure
{
    unsigned int code;
    std::string text;
    std::string file;
    unsigned int line;
    /// The kept `errno`, for classes that keep one.
    std::optional<int> errnoValue = std::nullopt;

    /// The line that the default logger writes.
    std::string LogLine() const { return text + " at " + file + ":" + std::to_string(line) + "\n"; }
    bool operator==(const Failure&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Failure& failure);

/// What `e` shows.
template <typename E>
Failure Describe(const E& e)
{
    Failure failure{e.GetErrorCode(), e.GetText(), e.GetContext().m_File, e.GetContext().m_Line};
    if constexpr (requires { e.GetSysErr(); }) {
        failure.errnoValue = static_cast<int>(e.GetSysErr());
    } else if constexpr (requires { e.GetErrno(); }) {
        failure.errnoValue = e.GetErrno();
    }
    return failure;
}

/// Success when `action` throws exactly an `E` that shows what is expected and comes from one of
/// the library's own throw sites (no component, the default logger). An `errnoValue` left out is
/// not compared.
template <typename E, typename Action>
::testing::AssertionResult Throws(Action&& action, const Failure& expected)
{
    try {
        action();
    } catch (const E& e) {
        if (typeid(e) != typeid(E)) {
            return ::testing::AssertionFailure() << "threw the subclass " << typeid(e).name();
        }
        Failure actual = Describe(e);
        if (!expected.errnoValue) {
            actual.errnoValue.reset();
        }
        if (actual != expected) {
            return ::testing::AssertionFailure() << "threw " << actual << ", not " << expected;
        }
        if (e.GetContext().m_CompName != nullptr ||
            e.GetContext().m_Logger != VelaHost_Utility::DefaultExceptionLogger) {
            return ::testing::AssertionFailure() << "threw " << actual << " from a foreign context";
        }
        return ::testing::AssertionSuccess();
    } catch (const VelaHost_Utility::Exception& e) {
        return ::testing::AssertionFailure() << "threw another class: " << e.GetText();
    }
    return ::testing::AssertionFailure() << "threw nothing";
}

/// The failure of every system call of the operating-system layer.
Failure SystemFailure(int errnoValue);

} // namespace velahost_test
