#include "Counted.h"
#include "Scenarios.h"

#include <VelaHost_Utility/Properties.h>
#include <VelaHost_Utility/RefCount.h>
#include <VelaHost_Utility/StringHelpers.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace instructions {

namespace {

constexpr const char* s_Text = "the quick brown fox jumps over the lazy dog";

class Shared : public virtual VelaHost_Utility::RefCount
{};

} // namespace

int CopySmartPointer()
{
    const SmartPointer<Shared> pointer(new Shared);
    return CountEach(1000, [&](int) { const SmartPointer<Shared> copy(pointer); });
}

int ThrowAndLog()
{
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::abort();
    }
    VelaHost_Utility::Properties properties;
    properties.AddProperty("name", 1U);
    return CountEach(100, [&](int) {
        try {
            properties.AddProperty("name", 2U);
        } catch (const VelaHost_Utility::PropertiesException&) {
        }
    });
}

int ChopText()
{
    const std::string original = std::string(" \t ") + s_Text + "\t ";
    std::string text;
    return CountEach(500, [&](int) {
        text = original;
        VelaHost_Utility::chop(text);
    });
}

int CopyText()
{
    char copy[100];
    return CountEach(500, [&](int) { VelaHost_Utility::strmaxcpy(copy, s_Text, sizeof copy); });
}

int RaiseText()
{
    char text[100];
    std::strcpy(text, s_Text);
    return CountEach(500, [&](int) { VelaHost_Utility::strupr(text); });
}

} // namespace instructions
