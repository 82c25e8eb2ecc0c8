#include <VelaHost_OS/StringHelpers.h>

namespace VelaHost_OS {

char* strlwr(char* s)
{
    constexpr char toLower = 'a' - 'A';
    for (char* p = s; *p != '\0'; ++p) {
        if (*p >= 'A' && *p <= 'Z') {
            *p = static_cast<char>(*p + toLower);
        }
    }
    return s;
}

} // namespace VelaHost_OS
