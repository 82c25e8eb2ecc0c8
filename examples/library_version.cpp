// Version texts: this library's own, and those that other libraries publish.

#include <VelaHost_OS/LibraryVersion.h>

#include <cstdio>
#include <string>

// What a library of the name "demo" exports to be found; here the program does it itself. That it
// may be seen from the library, the program is linked with its symbols exported (ENABLE_EXPORTS).
extern "C" {
extern const char* const demo_LibraryVersion;
[[gnu::used]] const char* const demo_LibraryVersion = "KXcid 2.0.0.1 a demonstration";
}

int main()
{
    std::printf("%s\n", LIBVELAHOST_FILE_VERSION_STRING);
    std::printf("%s\n", LIBVELAHOST_PRODUCT_VERSION_STRING);

    for (const char* name : {"demo", "nosuchlibrary"}) {
        std::string version = "unknown"; // stays as it is when nothing is found
        const bool found = VelaHost_OS::GetLibraryVersion(name, version);
        std::printf("%s: %s, %s\n", name, found ? "found" : "not found", version.c_str());
    }
}

// Output:
//   KXcid 1000.0.0.22 VelaHost Library
//   KXcid 1.0.0.73 KORAVEL
//   demo: found, KXcid 2.0.0.1 a demonstration
//   nosuchlibrary: not found, unknown
