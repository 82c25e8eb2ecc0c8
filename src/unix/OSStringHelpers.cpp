#include <VelaHost_OS/StringHelpers.h>

namespace VelaHost_OS {

char* strlwr(char* s)
{
    for (char* c = s; *c != '\0'; ++c) {
        if (*c >= 'A' && *c <= 'Z') {
            *c = static_cast<char>(*c + ('a' - 'A'));
        }
    }
    return s;
}

} // namespace VelaHost_OS
