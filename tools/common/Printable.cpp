#include "Printable.h"

#include <cstdio>

namespace velahost_tools {

std::string Printable(std::string_view text)
{
    constexpr unsigned char firstPrintable = ' ';
    constexpr unsigned char deleteCharacter = 0x7f;
    std::string printable;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= firstPrintable && byte != deleteCharacter) {
            printable += character;
            continue;
        }
        char escaped[5];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned int>(byte));
        printable += escaped;
    }
    return printable;
}

} // namespace velahost_tools
