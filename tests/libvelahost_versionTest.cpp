#include <VelaHost_OS/LibraryVersion.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <dlfcn.h>
#include <fstream>
#include <sstream>
#include <string>

namespace {

/// The permissions of the mapping that `address` lies in, as the system shows them.
std::string PermissionsOf(const void* address)
{
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        std::uintptr_t begin = 0;
        std::uintptr_t end = 0;
        char dash = 0;
        std::string permissions;
        fields >> std::hex >> begin >> dash >> end >> permissions;
        if (wanted >= begin && wanted < end) {
            return permissions;
        }
    }
    return "not mapped";
}

TEST(VersionStrings, NameLibraryAndProduct)
{
    EXPECT_STREQ(LIBVELAHOST_FILE_VERSION_STRING, "KXcid 1000.0.0.22 VelaHost Library");
    EXPECT_STREQ(LIBVELAHOST_PRODUCT_VERSION_STRING, "KXcid 1.0.0.73 KORAVEL");
}

class ExportedVersionString : public ::testing::TestWithParam<const char*>
{};

TEST_P(ExportedVersionString, IsAReadOnlyPointerToReadOnlyText)
{
    void* library = dlopen("libvelahost.so.1", RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr);
    const auto* variable = static_cast<const char* const*>(dlsym(library, GetParam()));
    ASSERT_NE(variable, nullptr);
    EXPECT_EQ(PermissionsOf(variable), "r--p");
    EXPECT_EQ(PermissionsOf(*variable), "r--p");
    EXPECT_EQ(std::string(*variable).substr(0, 6), "KXcid ");
    dlclose(library);
}

INSTANTIATE_TEST_SUITE_P(Both, ExportedVersionString,
                         ::testing::Values("LIBVELAHOST_FILE_VERSION_STRING",
                                           "LIBVELAHOST_PRODUCT_VERSION_STRING"));

} // namespace
