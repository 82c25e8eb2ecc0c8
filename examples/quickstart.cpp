#include <VelaHost_Utility/Properties.h>

#include <iostream>
#include <sstream>

int main()
{
    std::istringstream file("Port = 4711\nName = \"left slot\"  # where it sits\n");
    VelaHost_Utility::Properties settings;
    try {
        settings.Load(file);
    } catch (const VelaHost_Utility::PropertiesException&) {
        std::cerr << settings.GetLastError() << '\n';
        return 1;
    }
    std::cout << VelaHost_Utility::GetUIntPropertyValue(settings, "Port", 80) << '\n';
}
