// A configuration file with sections: repeated blocks, each with its arguments and values.

#include <VelaHost_Utility/PropertiesEx.h>

#include <cstdio>
#include <sstream>
#include <string>

using namespace VelaHost_Utility;

int main()
{
    std::istringstream file("Version = 3\n"
                            "<Board 0 primary>\n"
                            "Irq = 0x0A\n"
                            "Label = \"left slot\"\n"
                            "</Board>\n"
                            "<Board 1>\n"
                            "Irq = 11\n"
                            "</Board>\n");
    PropertiesEx config;
    config.Load(file, true);
    std::printf("Version %u\n", GetUIntPropertyValue(config, "Version", 0));

    const std::string unnamed = "unnamed";
    for (int i = 0; PropertiesSection* board = config.GetSection("Board", i); ++i) {
        const char* role = board->GetArg(1); // null when the tag has no second word
        std::printf("Board %s, %s: Irq %u, %s\n", board->GetArg(0),
                    role != nullptr ? role : "no role", GetUIntPropertyValue(*board, "Irq", 0),
                    GetStringPropertyValue(*board, "Label", unnamed).c_str());
    }

    std::istringstream broken("<Fan>\n"
                              "Speed = 1\n"
                              "Speed = 2\n"
                              "</Fan>\n");
    PropertiesEx fans;
    try {
        fans.Load(broken, true);
    } catch (const PropertiesException&) {
        // A name defined twice in a section: the text is the section's, the line the store's.
        std::printf("refused: %s%s\n", fans.GetSection("Fan", 0)->GetLastError().c_str(),
                    fans.GetLastError().c_str());
    }
}

// Output:
//   Version 3
//   Board 0, primary: Irq 10, left slot
//   Board 1, no role: Irq 11, unnamed
//   PropertiesException at Properties:284
//   refused: Property multiply defined at line 3
