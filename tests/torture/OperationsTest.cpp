#include "Operation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cxxabi.h>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace velahost_test;

/// An exported function that no operation is named after.
struct Exemption
{
    std::string_view function; ///< Without its outermost namespace; a '*' for any beginning.
    std::string_view reason;   ///< Or the operation that it is.
};

constexpr std::string_view s_Step = "a private step of the class's operations";
constexpr std::string_view s_NothingFails = "calls nothing that can fail";
constexpr std::string_view s_Members = "only destroys its members, which have operations";

constexpr std::array s_Exemptions{
    Exemption{"ClientSocket::operator<<", "ClientSocket_Send"},
    Exemption{"ClientSocket::operator>>", "ClientSocket_Receive"},
    Exemption{"ServerSocket::operator<<", "ServerSocket_Send"},
    Exemption{"ServerSocket::operator>>", "ServerSocket_Receive"},
    Exemption{"GetLibraryVersion", "LibraryVersion_InProcess, _File and _Loaded"},
    Exemption{"ThrowSystemError", "part of every operation that fails in the system"},
    Exemption{"DefaultExceptionLogger", "Exception_LogMe"},
    Exemption{"Exception::Exception", "part of every operation that throws"},
    Exemption{"Properties::GetStringProperty", "Properties_GetProperty"},
    Exemption{"Properties::GetUIntProperty", "Properties_GetProperty"},
    Exemption{"*::operator delete", "part of the _Destroy of its class"},

    Exemption{"IpcMsgQueueTransport::Receive", s_Step},
    Exemption{"IpcMsgQueueTransport::SendReply", s_Step},
    Exemption{"IpcSocketTransport::AcceptClient", s_Step},
    Exemption{"IpcSocketTransport::Close", s_Step},
    Exemption{"IpcSocketTransport::DispatchFrames", s_Step},
    Exemption{"IpcSocketTransport::NoteDescriptor", s_Step},
    Exemption{"IpcSocketTransport::Receive", s_Step},
    Exemption{"ProcessMutex::CloseLockFile", s_Step},
    Exemption{"ProcessMutex::CreateLockFile", s_Step},
    Exemption{"ProcessMutex::WaitForReadyMark", s_Step},
    Exemption{"SharedMemory::ReplaceFile", s_Step},
    Exemption{"Socket::FillAddress", s_Step},
    Exemption{"TimerQueue::ElapsedMilliseconds", s_Step},
    Exemption{"TimerQueue::MustWakeFor", s_Step},
    Exemption{"TimerQueue::Remove", s_Step},
    Exemption{"TimerQueue::RunPass", s_Step},
    Exemption{"TimerQueue::Sleep", s_Step},
    Exemption{"TimerQueue::StartThread", s_Step},

    Exemption{"Exception::~Exception", s_NothingFails},
    Exemption{"BadParmException::~BadParmException", s_NothingFails},
    Exemption{"BadStateException::~BadStateException", s_NothingFails},
    Exemption{"FeatureNotSupportedException::~FeatureNotSupportedException", s_NothingFails},
    Exemption{"NotImplementedException::~NotImplementedException", s_NothingFails},
    Exemption{"PropertiesException::~PropertiesException", s_NothingFails},
    Exemption{"SystemException::~SystemException", s_NothingFails},
    Exemption{"TimerException::~TimerException", s_NothingFails},
    Exemption{"IpcLogAdapter::~IpcLogAdapter", s_NothingFails},
    Exemption{"IpcMsgHandler::~IpcMsgHandler", s_NothingFails},
    Exemption{"IpcMsgHandler::HandleIpcClose", s_NothingFails},
    Exemption{"IpcSocketTransport::Connection::Connection", s_NothingFails},
    Exemption{"IpcSocketTransport::Connection::~Connection", s_NothingFails},
    Exemption{"Observer::~Observer", s_NothingFails},
    Exemption{"Properties::Properties", s_NothingFails},
    Exemption{"PropertiesEx::PropertiesEx", s_NothingFails},
    Exemption{"PropertiesSection::GetArg", s_NothingFails},
    Exemption{"RefCount::RefCount", s_NothingFails},
    Exemption{"RefCount::operator=", s_NothingFails},
    Exemption{"RefCount::~RefCount", s_NothingFails},
    Exemption{"TimerService::~TimerService", s_NothingFails},

    Exemption{"ClientSocket::~ClientSocket", s_Members},
    Exemption{"ServerSocket::~ServerSocket", s_Members},
    Exemption{"IpcMsgQueueTransport::~IpcMsgQueueTransport", s_Members},
    Exemption{"IpcSocketTransport::~IpcSocketTransport", s_Members},
    Exemption{"Observable::~Observable", "Observable_RemoveAllObservers"},
    Exemption{"Properties::~Properties", s_Members},
    Exemption{"PropertiesEx::~PropertiesEx", s_Members},
    Exemption{"PropertiesSection::~PropertiesSection", s_Members},
};

bool IsExempt(const Exemption& exemption, std::string_view function)
{
    return exemption.function.starts_with('*') ? function.ends_with(exemption.function.substr(1))
                                               : function == exemption.function;
}

/// Qualified names without the outermost namespace, such as "Timer::Start".
std::set<std::string> ExportedFunctions()
{
    std::ifstream list(EXPORTED_SYMBOLS);
    std::set<std::string> functions;
    for (std::string symbol; std::getline(list, symbol);) {
        int status = 0;
        const std::unique_ptr<char, void (*)(void*)> demangled(
            abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), std::free);
        if (status != 0) {
            continue;
        }
        // Data has no parameters; tables and thunks begin with words of their own.
        const std::string_view name(demangled.get());
        const std::size_t end = name.find('(');
        if (end != std::string_view::npos && name.starts_with("VelaHost_")) {
            const std::size_t begin = name.find("::") + 2;
            functions.emplace(name.substr(begin, end - begin));
        }
    }
    return functions;
}

/// How the names of the operations of that function begin, or, of one outside any class, end or
/// go on behind the first word.
std::string OperationName(const std::string& function)
{
    const std::size_t separator = function.rfind("::");
    if (separator == std::string::npos) {
        return "_" + function;
    }
    std::string owner = function.substr(0, separator);
    const std::string own = function.substr(separator + 2);
    const std::size_t inner = owner.find("::");
    const std::string lastOwner = inner == std::string::npos ? owner : owner.substr(inner + 2);
    if (inner != std::string::npos) {
        owner.replace(inner, 2, "_");
    }
    if (own == lastOwner) {
        return owner + "_Construct";
    }
    return owner + "_" + (own.starts_with('~') ? "Destroy" : own);
}

bool HasOperation(const std::string& function)
{
    const std::string name = OperationName(function);
    static const std::vector<Operation> all = AllOperations();
    return std::any_of(all.begin(), all.end(), [&](const Operation& operation) {
        const std::size_t found = operation.name.find(name);
        const std::size_t end = found + name.size();
        return found != std::string::npos && (found == 0 || name.starts_with('_')) &&
               (end == operation.name.size() || operation.name[end] == '_');
    });
}

TEST(Operations, CoverEveryExportedFunction)
{
    const std::set<std::string> functions = ExportedFunctions();
    EXPECT_GT(functions.size(), 100U);
    EXPECT_TRUE(functions.count("Timer::Start"));
    for (const std::string& function : functions) {
        const bool isExempt =
            std::any_of(s_Exemptions.begin(), s_Exemptions.end(),
                        [&](const Exemption& e) { return IsExempt(e, function); });
        EXPECT_NE(isExempt, HasOperation(function)) << function;
    }
}

TEST(Operations, AreExemptOnlyIfExported)
{
    const std::set<std::string> functions = ExportedFunctions();
    for (const Exemption& exemption : s_Exemptions) {
        EXPECT_TRUE(std::any_of(functions.begin(), functions.end(), [&](const std::string& f) {
            return IsExempt(exemption, f);
        })) << exemption.function;
    }
}

} // namespace
