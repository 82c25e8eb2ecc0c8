#include "ThrownException.h"

#include <cstdio>

namespace velahost_test {

std::ostream& operator<<(std::ostream& out, const Failure& failure)
{
    char code[16];
    std::snprintf(code, sizeof code, "0x%x", failure.code);
    out << code << " \"" << failure.text << "\" at " << failure.file << ":" << failure.line;
    if (failure.errnoValue) {
        out << " errno " << *failure.errnoValue;
    }
    return out;
}

Failure SystemFailure(int errnoValue)
{
    char text[64];
    std::snprintf(text, sizeof text, "SystemException(SysErr=0x%x)",
                  static_cast<unsigned int>(errnoValue));
    return {0x2002, text, "include/internal/unix/OSSystem", 68, errnoValue};
}

} // namespace velahost_test
