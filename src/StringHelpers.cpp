#include <VelaHost_Utility/StringHelpers.h>

#include "Blanks.h"

#include <cctype>

namespace VelaHost_Utility {

namespace {

/// True when a size leaves no room for any character.
bool IsRoomless(unsigned int max)
{
    return max <= 1;
}

} // namespace

void chop(std::string& text)
{
    const std::size_t first = SkipBlanks(text);
    if (first == text.size()) {
        return;
    }
    text.resize(WithoutLastBlanks(text).size());
    text.erase(0, first);
}

char* strmaxcpy(char* dst, const char* src, unsigned int max)
{
    if (IsRoomless(max)) {
        *dst = '\0';
        return dst;
    }
    // Not strcpy, which may copy in any order: callers shift texts to the left in place.
    for (char* to = dst; (*to = *src) != '\0'; ++to) {
        ++src;
    }
    return dst;
}

int strcpycnt(char* dst, const char* src, unsigned int max)
{
    strmaxcpy(dst, src, max);
    return IsRoomless(max) ? static_cast<int>(max) - 1 : 0;
}

char* strupr(char* s)
{
    if (s == nullptr) {
        return nullptr;
    }
    for (char* c = s; *c != '\0'; ++c) {
        // Bytes of 0x80 and above go in as negative numbers; the C library's tables hold these too.
        *c = static_cast<char>(std::toupper(static_cast<signed char>(*c)));
    }
    return s;
}

} // namespace VelaHost_Utility
