#include "LibrarySymbols.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

// What the shared library shows of itself.

namespace {

using velahost_test::ReadSymbols;

using ::testing::Contains;
using ::testing::IsEmpty;

/// The demangled names of the symbols that the library defines for others.
std::vector<std::string> ExportedSymbols()
{
    std::vector<std::string> names;
    std::istringstream lines(ReadSymbols("-C"));
    // ADDRESS KIND NAME
    std::string address;
    std::string kind;
    std::string name;
    while (lines >> address >> kind && std::getline(lines >> std::ws, name)) {
        names.push_back(name);
    }
    return names;
}

/// How many words each exported virtual table has, by the name of its class.
std::map<std::string, std::size_t> VirtualTableWords()
{
    constexpr std::string_view kind = "vtable for ";
    std::map<std::string, std::size_t> words;
    std::istringstream lines(ReadSymbols("-C -S"));
    for (std::string line; std::getline(lines, line);) {
        if (const std::size_t at = line.find(kind); at != std::string::npos) {
            // ADDRESS SIZE KIND NAME
            std::istringstream fields(line);
            std::string address;
            std::size_t size = 0;
            fields >> address >> std::hex >> size;
            words[line.substr(at + kind.size())] = size / sizeof(void*);
        }
    }
    return words;
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

TEST(Exports, HoldVirtualTablesOfTheRightLengthAndNoOthers)
{
    // Two words come before the slots: where the object begins, and its type.
    constexpr std::size_t destructors = 2 + 2;
    // A virtual base adds a table, and an offset to each of the two.
    constexpr std::size_t virtualBase = 1 + destructors + 1;
    const std::map<std::string, std::size_t> expected = {
        {"VelaHost_Ipc::ClientSocket", destructors},
        {"VelaHost_Ipc::IpcLogAdapter", destructors + 5},
        {"VelaHost_Ipc::IpcMsgException", destructors},
        {"VelaHost_Ipc::IpcMsgHandler", destructors + 2},
        {"VelaHost_Ipc::IpcMsgQueueTransport", destructors + 2},
        {"VelaHost_Ipc::IpcSocketException", destructors},
        {"VelaHost_Ipc::IpcSocketTransport::Connection", destructors},
        {"VelaHost_Ipc::ServerSocket", destructors},
        {"VelaHost_Ipc::Socket", destructors},
        {"VelaHost_OS::ThreadLocalType", destructors + 4},
        {"VelaHost_OS::ThreadMutex", destructors},
        {"VelaHost_OS::ThreadRecursiveMutex", destructors},
        {"VelaHost_OS::TimerQueue", destructors + 2},
        {"VelaHost_OS::TimerService", destructors + 2},
        {"VelaHost_OS::TimerService::ReqHandler", 2 + 1},
        {"VelaHost_Utility::BadParmException", destructors},
        {"VelaHost_Utility::BadStateException", destructors},
        {"VelaHost_Utility::Exception", destructors},
        {"VelaHost_Utility::FeatureNotSupportedException", destructors},
        {"VelaHost_Utility::Lockable", destructors},
        {"VelaHost_Utility::Locker", destructors},
        {"VelaHost_Utility::NotImplementedException", destructors},
        {"VelaHost_Utility::Observer", destructors + virtualBase},
        {"VelaHost_Utility::Properties", destructors},
        {"VelaHost_Utility::PropertiesEx", destructors},
        {"VelaHost_Utility::PropertiesException", destructors},
        {"VelaHost_Utility::PropertiesSection", destructors},
        {"VelaHost_Utility::RefCount", destructors},
        {"VelaHost_Utility::SystemException", destructors},
        {"VelaHost_Utility::Timer", 1 + destructors + virtualBase},
        {"VelaHost_Utility::TimerException", destructors},
    };
    EXPECT_EQ(VirtualTableWords(), expected);
}

} // namespace
