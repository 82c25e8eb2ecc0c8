#include <VelaHost_Utility/Exception.h>

#include <cerrno>
#include <cstdlib>

// A process like any other that links the library: it fails as often as its argument says, each
// second time on behalf of a component of its own.
int main(int, char** arguments)
{
    using namespace VelaHost_Utility;
    const int count = std::atoi(arguments[1]);
    for (int i = 1; i <= count; ++i) {
        const char* component = i % 2 == 0 ? "Probe" : nullptr;
        errno = i;
        const SystemException e({component, "src/Probe", 20, DefaultExceptionLogger}, 0x2002);
        if (errno != i) {
            return 1;
        }
    }
    return 0;
}
