// A flat configuration file: typed values with defaults, and errors that name their line.

#include <VelaHost_Utility/Properties.h>

#include <cstdio>
#include <sstream>
#include <string>

using namespace VelaHost_Utility;

int main()
{
    std::istringstream file("# which door\n"
                            "Port = 4711\n"
                            "Mask = 0x1F\n"
                            "Name = \"left slot\"  # where it sits\n");
    Properties settings;
    settings.Load(file); // std::ifstream in real life

    const std::string nobody = "nobody"; // outlives what is made of it
    std::printf("Port %u, Mask %u, Retries %u\n", GetUIntPropertyValue(settings, "Port", 80),
                GetUIntPropertyValue(settings, "Mask", 0),
                GetUIntPropertyValue(settings, "Retries", 3)); // absent: the default
    std::printf("Name %s, Owner %s\n", GetStringPropertyValue(settings, "Name", nobody).c_str(),
                GetStringPropertyValue(settings, "Owner", nobody).c_str());

    // Null for what is absent or of the other type.
    std::printf("Name as a number: %s\n", settings.GetUIntProperty("Name") ? "there" : "none");
    settings.AddProperty("Retries", 5U); // by the program, under a name that is not taken
    settings.GetUIntProperty("Port")->SetValue(4712);

    std::istringstream broken("Timeout = 30\n"
                              "Speed = fast\n");
    try {
        settings.Load(broken);
    } catch (const PropertiesException&) {
        std::printf("refused: %s\n", settings.GetLastError().c_str());
    }
    // What came before the bad line is in the store; Clear() empties it.
    std::printf("Timeout %u\n", GetUIntPropertyValue(settings, "Timeout", 0));
}

// Output:
//   Port 4711, Mask 31, Retries 3
//   Name left slot, Owner nobody
//   Name as a number: none
//   PropertiesException at Properties:214
//   refused: Invalid UInt value at line 2
//   Timeout 30
