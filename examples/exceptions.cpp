// Exceptions: each logs one line when it is constructed, and tells its catcher why.

#include <VelaHost_OS/ProcessMutex.h>
#include <VelaHost_Utility/Exception.h>

#include <cstdio>

using namespace VelaHost_Utility;

// A throw site names its file and line itself: log readers find it when the code has moved.
constexpr Exception::Context s_RadixSite(nullptr, "exceptions", 12, DefaultExceptionLogger);

// A logger of the program's own, for those who don't want the standard one.
static void LogShort(const Exception& e)
{
    std::printf("logged: code 0x%x, line %u\n", e.GetErrorCode(), e.GetContext().m_Line);
}
constexpr Exception::Context s_StateSite(nullptr, "exceptions", 19, LogShort);

static void CheckRadix(unsigned int radix)
{
    if (radix < 2 || radix > 36) {
        throw BadParmException(s_RadixSite, 0, "radix %u", radix);
    }
}

int main()
{
    try {
        CheckRadix(99);
    } catch (const BadParmException& e) {
        std::printf("caught: %s\n", e.GetText().c_str());
    }

    try {
        throw BadStateException(s_StateSite, "door %s", "open");
    } catch (const Exception& e) { // the root of all
        std::printf("caught: %s\n", e.GetText().c_str());
    }

    // The library's own failures are of the same family.
    try {
        VelaHost_OS::ProcessMutex("nobody's").Delete(); // never made
    } catch (const SystemException& e) {
        std::printf("caught: code 0x%x, errno %u\n", e.GetErrorCode(), e.GetSysErr());
    }
}

// Output:
//   BadParmException(Index=0,radix 99) at exceptions:12
//   caught: BadParmException(Index=0,radix 99)
//   logged: code 0x2008, line 19
//   caught: BadStateException(door open)
//   SystemException(SysErr=0x16) at src/unix/OSProcessMutex:189
//   caught: code 0x2002, errno 22
