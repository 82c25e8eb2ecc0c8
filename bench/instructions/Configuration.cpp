#include "Counted.h"
#include "Scenarios.h"

#include <VelaHost_Utility/PropertiesEx.h>

#include <sstream>
#include <string>

namespace instructions {

namespace {

using VelaHost_Utility::Properties;
using VelaHost_Utility::PropertiesEx;

constexpr int s_Lines = 200;
constexpr int s_Sections = 20;
constexpr int s_Loads = 10;
constexpr int s_LookUps = 200;

std::string Name(int number)
{
    // Neighbours in the file are not neighbours in the order of names.
    return "entry." + std::to_string(number * 7919 % 1000) + ".value";
}

std::string Line(int number)
{
    const std::string value = std::to_string(number * 7907);
    switch (number % 4) {
    case 0:
        return "  " + Name(number) + " = " + value + "\n";
    case 1:
        return Name(number) + " = \"text number " + value + "\" # said in a few words\n";
    case 2:
        return Name(number) + "=0x" + value + "\n";
    default:
        return "# what follows is number " + value + "\n\t" + Name(number) + "\t=\t\"" + value +
               "\"\n";
    }
}

std::string FlatText()
{
    std::string text;
    for (int i = 0; i < s_Lines; ++i) {
        text += Line(i);
    }
    return text;
}

std::string SectionedText()
{
    std::string text;
    for (int section = 0; section < s_Sections; ++section) {
        const std::string type = section % 2 == 0 ? "channel" : "device";
        text += "<" + type + " number" + std::to_string(section) + " on>\n";
        for (int i = 0; i < s_Lines / s_Sections; ++i) {
            text += Line(i);
        }
        text += "</" + type + ">\n";
    }
    return text;
}

template <typename Find>
int LookUp(Find find)
{
    Properties properties;
    std::istringstream text(FlatText());
    properties.Load(text);
    std::string names[s_LookUps];
    for (int i = 0; i < s_LookUps; ++i) {
        names[i] = Name(i);
    }
    return CountEach(s_LookUps, [&](int number) { find(properties, names[number].c_str()); });
}

} // namespace

int LoadFlatFile()
{
    const std::string text = FlatText();
    return CountEach(s_Loads, [&](int) {
        std::istringstream in(text);
        Properties properties;
        properties.Load(in);
    });
}

int LoadSectionedFile()
{
    const std::string text = SectionedText();
    return CountEach(s_Loads, [&](int) {
        std::istringstream in(text);
        PropertiesEx properties;
        properties.Load(in, true);
    });
}

int LookUpNumber()
{
    return LookUp([](Properties& properties, const char* name) {
        return GetUIntPropertyValue(properties, name, 0);
    });
}

int LookUpText()
{
    return LookUp([](Properties& properties, const char* name) {
        return properties.GetStringProperty(name);
    });
}

int LookUpMissingName()
{
    return LookUp([](Properties& properties, const char* name) {
        return properties.GetProperty(name + 1, VelaHost_Utility::Property::AnyType);
    });
}

} // namespace instructions
