#include "Imports.h"

#include "support/Interpose.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace {

using namespace velahost_test;

/// A name, or the beginning of names, that the library may import without any test making it fail.
struct Exemption
{
    std::string_view name;
    enum class Match { Whole, Beginning } match;
    std::string_view reason;
};

constexpr auto s_Whole = Exemption::Match::Whole;
constexpr auto s_Beginning = Exemption::Match::Beginning;

constexpr std::string_view s_CannotFail = "has no way to fail";
constexpr std::string_view s_Language = "the language's run time: fails by exception or not at all";
constexpr std::string_view s_Allocation = "FailingAllocation makes it fail";
constexpr std::string_view s_TraceLibrary = "the trace library's: tests/support/plume stands in";
constexpr std::string_view s_Instrumentation = "a sanitizer's own";

constexpr std::array s_Exemptions{
    Exemption{"htons", s_Whole, s_CannotFail}, // a call only without optimisation
    Exemption{"memchr", s_Whole, s_CannotFail},
    Exemption{"memcmp", s_Whole, s_CannotFail},
    Exemption{"memcpy", s_Whole, s_CannotFail},
    Exemption{"memmove", s_Whole, s_CannotFail},
    Exemption{"memset", s_Whole, s_CannotFail},
    Exemption{"strlen", s_Whole, s_CannotFail},
    Exemption{"toupper", s_Whole, s_CannotFail},
    Exemption{"pthread_self", s_Whole, s_CannotFail},
    Exemption{"pthread_setcancelstate", s_Whole, "fails only for states that there are not"},
    Exemption{"__errno_location", s_Whole, s_CannotFail},
    Exemption{"__divdi3", s_Whole, "64-bit division at 32 bit; the divisors are constants"},
    Exemption{"stdout", s_Whole, "data"},
    Exemption{"snprintf", s_Whole, "used for one integer, in a buffer that holds any"},
    Exemption{"dlsym", s_Whole,
              "Interpose itself calls it, and RTLD_NEXT goes by the caller; OSLibraryVersionTest "
              "and DefaultExceptionLoggerTest have libraries without the symbols looked for"},

    Exemption{"_Znw", s_Beginning, s_Allocation},
    Exemption{"_Zna", s_Beginning, s_Allocation},
    Exemption{"_Zdl", s_Beginning, s_CannotFail},
    Exemption{"_Zda", s_Beginning, s_CannotFail},
    Exemption{"_ZS", s_Beginning, s_Language},
    Exemption{"_ZNS", s_Beginning, s_Language},
    Exemption{"_ZNKS", s_Beginning, s_Language},
    Exemption{"_ZT", s_Beginning, "data of the language's run time"},
    Exemption{"__cxa_", s_Beginning, s_Language},
    Exemption{"__gxx_personality", s_Beginning, s_Language},
    Exemption{"_Unwind_", s_Beginning, s_Language},
    Exemption{"_ITM_", s_Beginning, s_Language},
    Exemption{"__gmon_start__", s_Whole, "the profiler's, absent"},

    Exemption{"Plume", s_Beginning, s_TraceLibrary},
    Exemption{"_ZN19PlumeTraceInterface10PlumeTraceE", s_Beginning, s_TraceLibrary},

    Exemption{"__asan_", s_Beginning, s_Instrumentation},
    Exemption{"__ubsan_", s_Beginning, s_Instrumentation},
    Exemption{"__sanitizer_", s_Beginning, s_Instrumentation},
};

bool IsExempt(std::string_view import)
{
    return std::any_of(s_Exemptions.begin(), s_Exemptions.end(), [import](const Exemption& e) {
        return e.match == s_Whole ? import == e.name : import.starts_with(e.name);
    });
}

bool IsInterposed(std::string_view function)
{
    const std::vector<InterposedBase*> all = InterposedBase::All();
    return std::any_of(all.begin(), all.end(),
                       [function](const InterposedBase* f) { return function == f->GetName(); });
}

TEST(Imports, EveryFallibleFunctionIsInterposed)
{
    const std::vector<std::string> imports = ImportsOf("libvelahost.so");
    EXPECT_THAT(imports, testing::Contains("semop")) << "these are not the library's imports";
    for (const std::string& import : imports) {
        EXPECT_TRUE(IsExempt(import) || IsInterposed(SourceName(import)))
            << import << " is neither interposed nor exempt: tests can't make it fail";
    }
}

TEST(Imports, NothingIsBothInterposedAndExempt)
{
    for (const InterposedBase* function : InterposedBase::All()) {
        EXPECT_FALSE(IsExempt(function->GetName())) << function->GetName();
    }
}

TEST(Imports, WideEntryPointsAreKnownByTheirPlainNames)
{
    EXPECT_EQ(SourceName("__gettimeofday64"), "gettimeofday");
    EXPECT_EQ(SourceName("__localtime64_r"), "localtime_r");
    EXPECT_EQ(SourceName("__pthread_cond_timedwait64"), "pthread_cond_timedwait");
    EXPECT_EQ(SourceName("__stat64_time64"), "stat");
    EXPECT_EQ(SourceName("stat64"), "stat");
    EXPECT_EQ(SourceName("stat"), "stat");
    EXPECT_EQ(SourceName("__cxa_throw"), "__cxa_throw");
}

} // namespace
