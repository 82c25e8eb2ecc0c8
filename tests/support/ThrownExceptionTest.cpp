#include "support/ThrownException.h"

#include "support/CapturedStdout.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;
using ::testing::HasSubstr;

const Failure s_Expected{0x2002, "SystemException(SysErr=0xd)", "src/File", 8, 13};

/// Throws what `s_Expected` describes, with the context in the test's hand.
void ThrowFrom(const Exception::Context& context, unsigned int code = 0x2002)
{
    const CapturedStdout quiet;
    errno = 13;
    throw SystemException(context, code);
}

constexpr Exception::Context s_Site(nullptr, "src/File", 8, DefaultExceptionLogger);

class DerivedException : public SystemException
{
public:
    using SystemException::SystemException;
};

template <typename Change>
Failure Changed(Change change)
{
    Failure changed = s_Expected;
    change(changed);
    return changed;
}

TEST(Throws, SucceedsWhenEverythingIsAsExpected)
{
    EXPECT_TRUE(Throws<SystemException>([] { ThrowFrom(s_Site); }, s_Expected));
    EXPECT_TRUE(Throws<SystemException>([] { ThrowFrom(s_Site); },
                                        Changed([](Failure& f) { f.errnoValue.reset(); })))
        << "an errno left out is not compared";
}

TEST(Throws, FailsWhenAnythingDiffers)
{
    const auto throwIt = [] { ThrowFrom(s_Site); };
    EXPECT_FALSE(Throws<SystemException>(throwIt, Changed([](Failure& f) { f.code = 1; })));
    EXPECT_FALSE(Throws<SystemException>(throwIt, Changed([](Failure& f) { f.text += " "; })));
    EXPECT_FALSE(Throws<SystemException>(throwIt, Changed([](Failure& f) { f.file = "src"; })));
    EXPECT_FALSE(Throws<SystemException>(throwIt, Changed([](Failure& f) { f.line = 9; })));
    EXPECT_FALSE(Throws<SystemException>(throwIt, Changed([](Failure& f) { f.errnoValue = 12; })));
}

TEST(Throws, FailsWhenTheContextIsNotTheLibrarys)
{
    const Exception::Context component("Component", "src/File", 8, DefaultExceptionLogger);
    EXPECT_FALSE(Throws<SystemException>([&] { ThrowFrom(component); }, s_Expected));
    const Exception::Context logger(nullptr, "src/File", 8, [](const Exception&) {});
    EXPECT_FALSE(Throws<SystemException>([&] { ThrowFrom(logger); }, s_Expected));
}

TEST(Throws, FailsForAnotherClass)
{
    EXPECT_FALSE(Throws<BadStateException>([] { ThrowFrom(s_Site); }, s_Expected));
    const auto throwDerived = [] {
        const CapturedStdout quiet;
        errno = 13;
        throw DerivedException(s_Site, 0x2002);
    };
    EXPECT_FALSE(Throws<SystemException>(throwDerived, s_Expected));
    EXPECT_TRUE(Throws<DerivedException>(throwDerived, s_Expected));
    const ::testing::AssertionResult result =
        Throws<BadStateException>([] { ThrowFrom(s_Site); }, s_Expected);
    EXPECT_THAT(result.message(), HasSubstr("SystemException(SysErr=0xd)"));
}

TEST(Throws, FailsWhenNothingIsThrown)
{
    EXPECT_FALSE(Throws<SystemException>([] {}, s_Expected));
}

TEST(Throws, LetsForeignExceptionsThrough)
{
    EXPECT_THROW(static_cast<void>(
                     Throws<SystemException>([] { throw std::runtime_error(""); }, s_Expected)),
                 std::runtime_error);
}

TEST(Throws, TellsWhatItGotAndWhatItWanted)
{
    const ::testing::AssertionResult result =
        Throws<SystemException>([] { ThrowFrom(s_Site); }, Changed([](Failure& f) { f.line = 9; }));
    EXPECT_THAT(result.message(),
                HasSubstr("0x2002 \"SystemException(SysErr=0xd)\" at src/File:8 errno 13"));
    EXPECT_THAT(result.message(), HasSubstr("src/File:9"));
}

TEST(Describe, ShowsNoErrnoOfAClassThatKeepsNone)
{
    const CapturedStdout quiet;
    const Failure failure = Describe(NotImplementedException(s_Site, "x"));
    EXPECT_FALSE(failure.errnoValue.has_value());
    EXPECT_EQ(failure.code, 0x2006U);
    EXPECT_EQ(failure.text, "NotImplementedException(x)");
}

TEST(Failure, KnowsItsLogLine)
{
    CapturedStdout output;
    errno = 13;
    const SystemException e(s_Site, 0x2002);
    EXPECT_EQ(output.Stop(), s_Expected.LogLine());
}

TEST(SystemFailure, IsThatOfEverySystemCall)
{
    EXPECT_EQ(SystemFailure(0x1f), (Failure{0x2002, "SystemException(SysErr=0x1f)",
                                            "include/internal/unix/OSSystem", 68, 0x1f}));
}

} // namespace
