#include <VelaHost_Utility/Exception.h>

#include "support/CapturedStdout.h"
#include "support/ChildProcess.h"
#include "support/FailingAllocation.h"
#include "support/VirtualTable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <exception>
#include <functional>
#include <locale>
#include <memory>
#include <new>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <typeinfo>
#include <vector>

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;

constexpr Exception::Context s_Site(nullptr, "src/Somewhere", 17, DefaultExceptionLogger);

/// What a logger of the test's own was handed, without allocating anything itself.
struct Logged
{
    const Exception* exception;
    const std::type_info* type;
    unsigned int code;
    char text[300];
};

std::atomic<unsigned int> s_LogCount{0};
Logged s_LastLogged;

void RecordingLogger(const Exception& e)
{
    ++s_LogCount;
    s_LastLogged = {&e, &typeid(e), e.GetErrorCode(), {}};
    std::strncpy(s_LastLogged.text, e.GetText().c_str(), sizeof s_LastLogged.text - 1);
}

void CountingLogger(const Exception&)
{
    ++s_LogCount;
}

constexpr Exception::Context s_Recorded("Component", "src/Recorded", 4, RecordingLogger);

/// The line that the default logger writes for `text` at `s_Site`.
std::string LineOf(const std::string& text)
{
    return text + " at src/Somewhere:17\n";
}

/// Standard output while `action` runs.
std::string OutputOf(const std::function<void()>& action)
{
    CapturedStdout output;
    action();
    return output.Stop();
}

/// A concrete class that composes no text.
class BareException : public Exception
{
public:
    explicit BareException(const Context& context) : Exception(context, 0x1234) {}
};

TEST(ExceptionContext, StoresItsArgumentsUnchanged)
{
    const char component[] = "Component";
    const char file[] = "src/File";
    const Exception::Context context(component, file, UINT_MAX, RecordingLogger);
    EXPECT_EQ(context.m_CompName, component);
    EXPECT_EQ(context.m_File, file);
    EXPECT_EQ(context.m_Line, UINT_MAX);
    EXPECT_EQ(context.m_Logger, RecordingLogger);

    const Exception::Context empty(nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(empty.m_CompName, nullptr);
    EXPECT_EQ(empty.m_File, nullptr);
    EXPECT_EQ(empty.m_Line, 0U);
    EXPECT_EQ(empty.m_Logger, nullptr);
}

TEST(ExceptionContext, HasItsFieldsInOrder)
{
    EXPECT_EQ(offsetof(Exception::Context, m_CompName), 0U);
    EXPECT_EQ(offsetof(Exception::Context, m_File), sizeof(void*));
    EXPECT_EQ(offsetof(Exception::Context, m_Line), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(Exception::Context, m_Logger), 3 * sizeof(void*));
    EXPECT_EQ(sizeof(Exception::Context), 4 * sizeof(void*));
}

/// The objects as memory shows them.
struct ExceptionImage
{
    void* virtualTable;
    Exception::Context context;
    unsigned int errorCode;
    std::string text;
};

struct SystemExceptionImage
{
    void* virtualTable;
    Exception::Context context;
    unsigned int errorCode;
    std::string text;
    unsigned int sysErr;
};

TEST(ExceptionLayout, HasItsFieldsInOrder)
{
    errno = 0x51;
    const SystemException e(s_Recorded, 0x2002);
    const auto* image = reinterpret_cast<const SystemExceptionImage*>(&e);
    EXPECT_STREQ(image->context.m_CompName, "Component");
    EXPECT_STREQ(image->context.m_File, "src/Recorded");
    EXPECT_EQ(image->context.m_Line, 4U);
    EXPECT_EQ(image->context.m_Logger, RecordingLogger);
    EXPECT_EQ(image->errorCode, 0x2002U);
    EXPECT_EQ(image->text, "SystemException(SysErr=0x51)");
    EXPECT_EQ(image->sysErr, 0x51U);
}

TEST(ExceptionLayout, HasNothingElseInIt)
{
    EXPECT_EQ(sizeof(Exception), sizeof(ExceptionImage));
    EXPECT_EQ(sizeof(BadParmException), sizeof(Exception));
    EXPECT_EQ(sizeof(NotImplementedException), sizeof(Exception));
    EXPECT_EQ(sizeof(FeatureNotSupportedException), sizeof(Exception));
    EXPECT_EQ(sizeof(BadStateException), sizeof(Exception));
    EXPECT_EQ(sizeof(SystemException), sizeof(SystemExceptionImage));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(Exception), 48U);
        EXPECT_EQ(sizeof(SystemException), 52U);
    }
}

TEST(ExceptionFamily, IsRootedInExceptionAlone)
{
    EXPECT_FALSE((std::is_base_of_v<std::exception, Exception>));
    EXPECT_TRUE((std::is_convertible_v<BadParmException*, Exception*>));
    EXPECT_TRUE((std::is_convertible_v<NotImplementedException*, Exception*>));
    EXPECT_TRUE((std::is_convertible_v<FeatureNotSupportedException*, Exception*>));
    EXPECT_TRUE((std::is_convertible_v<BadStateException*, Exception*>));
    EXPECT_TRUE((std::is_convertible_v<SystemException*, Exception*>));
}

TEST(ExceptionFamily, HasNoVirtualOperationsButItsDestructor)
{
    errno = 0;
    EXPECT_EQ(CountVirtualSlots(std::make_unique<BadParmException>(s_Recorded, 0, "%s", "").get()),
              2U);
    EXPECT_EQ(CountVirtualSlots(std::make_unique<NotImplementedException>(s_Recorded, "").get()),
              2U);
    EXPECT_EQ(
        CountVirtualSlots(std::make_unique<FeatureNotSupportedException>(s_Recorded, "").get()),
        2U);
    EXPECT_EQ(CountVirtualSlots(std::make_unique<BadStateException>(s_Recorded, "%s", "").get()),
              2U);
    EXPECT_EQ(CountVirtualSlots(std::make_unique<SystemException>(s_Recorded, 0).get()), 2U);
}

TEST(ExceptionFamily, DestroysThroughSlotZeroAndDeletesThroughSlotOne)
{
    const std::string longText(100, 'x');
    const AllocationBalance balance;
    {
        void* memory = ::operator new(sizeof(NotImplementedException));
        WatchedBlock watch(memory);
        new (memory) NotImplementedException(s_Recorded, longText.c_str());
        EXPECT_EQ(balance.GetLiveCount(), 2);
        CallVirtualSlot(memory, 0);
        EXPECT_EQ(watch.GetFreeCount(), 0U);
        EXPECT_EQ(balance.GetLiveCount(), 1) << "the text is released";

        new (memory) NotImplementedException(s_Recorded, longText.c_str());
        CallVirtualSlot(memory, 1);
        EXPECT_EQ(watch.GetFreeCount(), 1U);
        EXPECT_EQ(balance.GetLiveCount(), 0);
    }
}

TEST(ExceptionFamily, IsDeletedThroughItsRoot)
{
    const AllocationBalance balance;
    const Exception* e = new BadStateException(s_Recorded, "%0100d", 1);
    EXPECT_EQ(e->GetText().size(), 119U);
    delete e;
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

TEST(Exception, IsCalledExceptionUntilAConcreteClassNamesIt)
{
    s_LogCount = 0;
    const BareException e(s_Recorded);
    EXPECT_EQ(e.GetText(), "Exception");
    EXPECT_EQ(e.GetErrorCode(), 0x1234U);
    EXPECT_EQ(s_LogCount, 0U);
}

TEST(Exception, HandsItselfToTheContextsLogger)
{
    s_LogCount = 0;
    BareException e(s_Recorded);
    e.LogMe();
    EXPECT_EQ(s_LogCount, 1U);
    EXPECT_EQ(s_LastLogged.exception, &e);
    e.LogMe();
    EXPECT_EQ(s_LogCount, 2U);
}

TEST(Exception, KeepsACopyOfItsContext)
{
    auto context = std::make_unique<Exception::Context>("Component", "src/File", 9, CountingLogger);
    const NotImplementedException e(*context, "nothing");
    context.reset();
    EXPECT_STREQ(e.GetContext().m_CompName, "Component");
    EXPECT_STREQ(e.GetContext().m_File, "src/File");
    EXPECT_EQ(e.GetContext().m_Line, 9U);
    EXPECT_EQ(e.GetContext().m_Logger, CountingLogger);
}

TEST(Exception, IsCompleteWhenItIsLogged)
{
    s_LogCount = 0;
    const BadParmException badParm(s_Recorded, 3, "%s=%d", "size", -1);
    EXPECT_EQ(s_LogCount, 1U);
    EXPECT_EQ(s_LastLogged.exception, &badParm);
    EXPECT_EQ(*s_LastLogged.type, typeid(BadParmException));
    EXPECT_EQ(s_LastLogged.code, 0x2005U);
    EXPECT_STREQ(s_LastLogged.text, "BadParmException(Index=3,size=-1)");

    const NotImplementedException notImplemented(s_Recorded, "Foo");
    EXPECT_EQ(s_LogCount, 2U);
    EXPECT_EQ(*s_LastLogged.type, typeid(NotImplementedException));
    EXPECT_EQ(s_LastLogged.code, 0x2006U);
    EXPECT_STREQ(s_LastLogged.text, "NotImplementedException(Foo)");

    const FeatureNotSupportedException notSupported(s_Recorded, "Bar");
    EXPECT_EQ(s_LogCount, 3U);
    EXPECT_EQ(*s_LastLogged.type, typeid(FeatureNotSupportedException));
    EXPECT_EQ(s_LastLogged.code, 0x2007U);
    EXPECT_STREQ(s_LastLogged.text, "FeatureNotSupportedException(Bar)");

    const BadStateException badState(s_Recorded, "state %c", 'x');
    EXPECT_EQ(s_LogCount, 4U);
    EXPECT_EQ(*s_LastLogged.type, typeid(BadStateException));
    EXPECT_EQ(s_LastLogged.code, 0x2008U);
    EXPECT_STREQ(s_LastLogged.text, "BadStateException(state x)");

    errno = 2;
    const SystemException system(s_Recorded, 0x4321);
    EXPECT_EQ(s_LogCount, 5U);
    EXPECT_EQ(*s_LastLogged.type, typeid(SystemException));
    EXPECT_EQ(s_LastLogged.code, 0x4321U);
    EXPECT_STREQ(s_LastLogged.text, "SystemException(SysErr=0x2)");
}

TEST(Exception, TakesANullNameForAnEmptyOne)
{
    EXPECT_EQ(NotImplementedException(s_Recorded, nullptr).GetText(), "NotImplementedException()");
    EXPECT_EQ(FeatureNotSupportedException(s_Recorded, nullptr).GetText(),
              "FeatureNotSupportedException()");
}

TEST(Exception, LeavesExactlyOneLineOfEachClassWithoutBeingThrown)
{
    EXPECT_EQ(OutputOf([] { const BadParmException e(s_Site, 7, "%s", "detail"); }),
              LineOf("BadParmException(Index=7,detail)"));
    EXPECT_EQ(OutputOf([] { const NotImplementedException e(s_Site, "what"); }),
              LineOf("NotImplementedException(what)"));
    EXPECT_EQ(OutputOf([] { const FeatureNotSupportedException e(s_Site, "what"); }),
              LineOf("FeatureNotSupportedException(what)"));
    EXPECT_EQ(OutputOf([] { const BadStateException e(s_Site, "%s", "detail"); }),
              LineOf("BadStateException(detail)"));
    EXPECT_EQ(OutputOf([] {
                  errno = 5;
                  const SystemException e(s_Site, 0x2002);
              }),
              LineOf("SystemException(SysErr=0x5)"));
}

TEST(Exception, IsLoggedOnceThoughThrownCaughtAndCopied)
{
    const std::string output = OutputOf([] {
        try {
            throw NotImplementedException(s_Site, "thrown");
        } catch (const Exception& e) {
            EXPECT_EQ(e.GetErrorCode(), 0x2006U);
            const auto copy = dynamic_cast<const NotImplementedException&>(e);
            EXPECT_EQ(copy.GetText(), "NotImplementedException(thrown)");
            EXPECT_EQ(copy.GetErrorCode(), 0x2006U);
            EXPECT_EQ(copy.GetContext().m_File, s_Site.m_File);
        }
    });
    EXPECT_EQ(output, LineOf("NotImplementedException(thrown)"));
}

TEST(BadParmException, ShowsIndexZeroAndAnEmptyDetail)
{
    const BadParmException e(s_Recorded, 0, "%s", "");
    EXPECT_EQ(e.GetText(), "BadParmException(Index=0,)");
    EXPECT_EQ(e.GetErrorCode(), 0x2005U);
}

TEST(BadParmException, ShowsTheIndexAsUnsigned)
{
    const BadParmException e(s_Recorded, UINT_MAX, "%s", "x");
    EXPECT_EQ(e.GetText(), "BadParmException(Index=4294967295,x)");
}

TEST(BadStateException, ShowsAnEmptyDetail)
{
    const BadStateException e(s_Recorded, "%s", "");
    EXPECT_EQ(e.GetText(), "BadStateException()");
}

TEST(NotImplementedException, TakesItsTextLiterally)
{
    const NotImplementedException e(s_Recorded, "100%s %n\n");
    EXPECT_EQ(e.GetText(), "NotImplementedException(100%s %n\n)");
    const NotImplementedException empty(s_Recorded, "");
    EXPECT_EQ(empty.GetText(), "NotImplementedException()");
    const std::string longText(5000, 'w');
    const NotImplementedException whole(s_Recorded, longText.c_str());
    EXPECT_EQ(whole.GetText(), "NotImplementedException(" + longText + ")");
}

TEST(FeatureNotSupportedException, TakesItsTextLiterally)
{
    const FeatureNotSupportedException e(s_Recorded, "100%s");
    EXPECT_EQ(e.GetText(), "FeatureNotSupportedException(100%s)");
    const std::string longText(5000, 'w');
    const FeatureNotSupportedException whole(s_Recorded, longText.c_str());
    EXPECT_EQ(whole.GetText(), "FeatureNotSupportedException(" + longText + ")");
}

class FormattedDetailLength : public ::testing::TestWithParam<std::size_t>
{};

TEST_P(FormattedDetailLength, IsWholeUpTo199AndThenCut)
{
    std::string detail;
    for (std::size_t i = 0; i < GetParam(); ++i) {
        detail += static_cast<char>('a' + i % 26);
    }
    const std::string shown = detail.substr(0, 199);
    const BadParmException badParm(s_Recorded, 1, "%s", detail.c_str());
    EXPECT_EQ(badParm.GetText(), "BadParmException(Index=1," + shown + ")");
    const BadStateException badState(s_Recorded, "%s", detail.c_str());
    EXPECT_EQ(badState.GetText(), "BadStateException(" + shown + ")");
}

INSTANTIATE_TEST_SUITE_P(Details, FormattedDetailLength,
                         ::testing::Values(0, 1, 198, 199, 200, 201, 1000, 100'000));

TEST(FormattedDetail, ExpandsAllItsArguments)
{
    const BadStateException e(s_Recorded, "%d %s %#x %c %% %lld", -1, "two", 3, '4', 5LL);
    EXPECT_EQ(e.GetText(), "BadStateException(-1 two 0x3 4 % 5)");
}

TEST(FormattedDetail, ShowsTheErrnoOfItsConstruction)
{
    // Not a literal: the compiler would call it an extension.
    const std::string format = "%m %d";
    errno = ENOENT;
    const BadStateException e(s_Recorded, format.c_str(), 5);
    EXPECT_EQ(e.GetText(), std::string("BadStateException(") + std::strerror(ENOENT) + " 5)");
}

TEST(FormattedDetail, IsCutAtACharacterThatCannotBeConverted)
{
    const wchar_t surrogate[] = {0xD800, 0};
    const BadStateException e(s_Recorded, "before %ls after", surrogate);
    EXPECT_EQ(e.GetText(), "BadStateException(before )");
}

TEST(FormattedDetail, ThrowsBadAllocWhenTheExpansionFindsNoMemory)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer needs the address space";
#endif
    ChildProcess child([] {
        const rlimit limit{200U << 20, 200U << 20};
        setrlimit(RLIMIT_AS, &limit);
        s_LogCount = 0;
        try {
            const BadStateException e(s_Recorded, "%.*f", 500'000'000, 1.0);
        } catch (const std::bad_alloc&) {
            return s_LogCount == 0 ? 0 : 1;
        }
        return 2;
    });
    EXPECT_EQ(child.WaitForExitStatus(), 0);
}

TEST(SystemException, ShowsTheErrnoOfItsConstructionWhateverTheCode)
{
    for (const unsigned int code : {0x2002U, 0U, 0xFFFFFFFFU}) {
        errno = 13;
        const SystemException e(s_Recorded, code);
        EXPECT_EQ(e.GetSysErr(), 13U);
        EXPECT_EQ(e.GetErrorCode(), code);
        EXPECT_EQ(e.GetText(), "SystemException(SysErr=0xd)");
    }
}

TEST(SystemException, ShowsErrnoInLowerCaseHexadecimalWithoutLeadingZeros)
{
    const std::pair<int, const char*> expected[] = {
        {0, "0x0"},        {9, "0x9"}, {16, "0x10"}, {0xABC, "0xabc"}, {INT_MAX, "0x7fffffff"},
        {-1, "0xffffffff"}};
    for (const auto& [value, shown] : expected) {
        errno = value;
        const SystemException e(s_Recorded, 0x2002);
        EXPECT_EQ(e.GetText(), std::string("SystemException(SysErr=") + shown + ")");
        EXPECT_EQ(e.GetSysErr(), static_cast<unsigned int>(value));
    }
}

TEST(SystemException, KeepsItsErrnoAndTheCallers)
{
    CapturedStdout output;
    errno = 13;
    const SystemException e(s_Site, 0x2002);
    EXPECT_EQ(errno, 13);
    errno = 14;
    EXPECT_EQ(e.GetSysErr(), 13U);
}

/// Groups digits by threes, as many locales do.
class Grouping : public std::numpunct<char>
{
    char do_thousands_sep() const override { return '.'; }
    char do_decimal_point() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(ExceptionTexts, IgnoreTheProcesssLocale)
{
    const std::locale before = std::locale::global(
        std::locale(std::locale::classic(), new Grouping)); // NOLINT: the locale owns it
    constexpr Exception::Context distant(nullptr, "src/Far", 1234567, DefaultExceptionLogger);
    CapturedStdout output;
    const BadParmException badParm(distant, 7654321, "%d", 1000000);
    errno = 0x1234567;
    const SystemException system(distant, 0x2002);
    std::locale::global(before);
    EXPECT_EQ(output.Stop(), "BadParmException(Index=7654321,1000000) at src/Far:1234567\n"
                             "SystemException(SysErr=0x1234567) at src/Far:1234567\n");
    EXPECT_EQ(badParm.GetText(), "BadParmException(Index=7654321,1000000)");
    EXPECT_EQ(system.GetText(), "SystemException(SysErr=0x1234567)");
}

/// Builds an exception by `build` with each of its allocations failing in turn; all of them must
/// end in `std::bad_alloc` without a line in the log. Returns how many there are.
unsigned int FailEachAllocation(const std::function<void()>& build)
{
    for (unsigned int failing = 1;; ++failing) {
        bool threw = false;
        bool hit = false;
        CapturedStdout output;
        const AllocationBalance balance;
        s_LogCount = 0;
        {
            const FailingAllocation failure(failing);
            try {
                build();
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            hit = failure.WasHit();
        }
        EXPECT_EQ(balance.GetLiveCount(), 0);
        const bool logged = s_LogCount != 0 || !output.Stop().empty();
        EXPECT_EQ(threw, hit) << "allocation " << failing;
        EXPECT_EQ(logged, !hit) << "allocation " << failing;
        if (!hit) {
            return failing - 1;
        }
    }
}

TEST(ExceptionAllocations, ThatFailEndInBadAllocAndNoLogLine)
{
    constexpr Exception::Context counted(nullptr, "src/Counted", 1, CountingLogger);
    const std::string what(300, 'w');
    for (const Exception::Context& context : {counted, s_Site}) {
        EXPECT_GE(FailEachAllocation(
                      [&] { const BadParmException e(context, 123456, "%s", what.c_str()); }),
                  1U);
        EXPECT_GE(
            FailEachAllocation([&] { const NotImplementedException e(context, what.c_str()); }),
            1U);
        EXPECT_GE(FailEachAllocation(
                      [&] { const FeatureNotSupportedException e(context, what.c_str()); }),
                  1U);
        EXPECT_GE(
            FailEachAllocation([&] { const BadStateException e(context, "%s", what.c_str()); }),
            1U);
        EXPECT_GE(FailEachAllocation([&] {
                      errno = 1;
                      const SystemException e(context, 0x2002);
                  }),
                  1U);
    }
}

TEST(ExceptionFamily, MayBeBuiltOnManyThreadsAtOnce)
{
    constexpr unsigned int threadCount = 8;
    constexpr unsigned int perThread = 200;
    constexpr Exception::Context counted(nullptr, "src/Counted", 1, CountingLogger);
    s_LogCount = 0;
    std::atomic<unsigned int> wrong{0};
    std::vector<std::thread> threads;
    for (unsigned int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            for (unsigned int i = 0; i < perThread; ++i) {
                errno = static_cast<int>(thread * perThread + i + 1);
                const SystemException e(counted, 0x2002);
                const BadParmException b(counted, thread, "%u", i);
                if (e.GetSysErr() != thread * perThread + i + 1 ||
                    b.GetText() != "BadParmException(Index=" + std::to_string(thread) + "," +
                                       std::to_string(i) + ")") {
                    ++wrong;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(s_LogCount, 2 * threadCount * perThread);
}

} // namespace
