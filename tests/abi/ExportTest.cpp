#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

// What the shared library shows of itself.

namespace {

using ::testing::Contains;
using ::testing::IsEmpty;

/// The demangled names of the symbols that the library defines for others.
std::vector<std::string> ExportedSymbols()
{
    const std::string command =
        std::string(VELAHOST_TEST_NM) + " -D --defined-only -C " + VELAHOST_TEST_LIBRARY;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(popen(command.c_str(), "r"),
                                                                 pclose);
    std::string text;
    char part[4096];
    std::size_t length = 0;
    while ((length = std::fread(part, 1, sizeof part, output.get())) > 0) {
        text.append(part, length);
    }
    std::vector<std::string> names;
    std::istringstream lines(text);
    // ADDRESS KIND NAME
    std::string address;
    std::string kind;
    std::string name;
    while (lines >> address >> kind && std::getline(lines >> std::ws, name)) {
        names.push_back(name);
    }
    return names;
}

/// Removes `prefix` from the start of `name`, when it is there.
bool Skip(std::string_view& name, std::string_view prefix)
{
    const bool there = name.substr(0, prefix.size()) == prefix;
    name.remove_prefix(there ? prefix.size() : 0);
    return there;
}

bool IsOurs(std::string_view name)
{
    for (const char* version :
         {"LIBVELAHOST_FILE_VERSION_STRING", "LIBVELAHOST_PRODUCT_VERSION_STRING"}) {
        if (name == version) {
            return true;
        }
    }
    for (const char* kind : {"typeinfo for ", "typeinfo name for ", "vtable for ", "VTT for ",
                             "construction vtable for ", "guard variable for ",
                             "non-virtual thunk to ", "virtual thunk to "}) {
        if (Skip(name, kind)) {
            break;
        }
    }
    return Skip(name, "VelaHost_Utility::") || Skip(name, "VelaHost_OS::") ||
           Skip(name, "VelaHost_Ipc::");
}

TEST(Exports, AreTheThreeNamespacesAndTheVersion)
{
    std::vector<std::string> foreign;
    for (const std::string& name : ExportedSymbols()) {
        if (!IsOurs(name)) {
            foreign.push_back(name);
        }
    }
    EXPECT_THAT(foreign, IsEmpty());
}

TEST(Exports, HoldTheClassesAndFunctions)
{
    const std::vector<std::string> names = ExportedSymbols();
    for (const char* name :
         {"VelaHost_OS::GetElapsedSecs()", "VelaHost_OS::GetLastError()",
          "VelaHost_OS::GetLocalTime(VelaHost_OS::_SYSTEMTIME*)",
          "VelaHost_OS::GetLogTime(unsigned int*, unsigned int*, unsigned int*, unsigned int*)",
          "VelaHost_OS::GetNumProcessors()", "VelaHost_OS::OutputDebugString(char*)",
          "VelaHost_OS::SleepMilliseconds(unsigned int)", "VelaHost_OS::gethrtime()",
          "VelaHost_Utility::DefaultExceptionLogger(VelaHost_Utility::Exception const&)"}) {
        EXPECT_THAT(names, Contains(name));
    }
    for (const char* name :
         {"VelaHost_OS::ThreadMutex", "VelaHost_OS::ThreadRecursiveMutex",
          "VelaHost_Utility::BadParmException", "VelaHost_Utility::BadStateException",
          "VelaHost_Utility::Exception", "VelaHost_Utility::FeatureNotSupportedException",
          "VelaHost_Utility::Lockable", "VelaHost_Utility::NotImplementedException",
          "VelaHost_Utility::SystemException"}) {
        EXPECT_THAT(names, Contains(std::string("typeinfo for ") + name));
        EXPECT_THAT(names, Contains(std::string("vtable for ") + name));
    }
}

} // namespace
