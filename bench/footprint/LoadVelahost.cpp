#include <VelaHost_OS/SystemInfo.h>

int main()
{
    return VelaHost_OS::gethrtime() > 0 ? 0 : 1;
}
