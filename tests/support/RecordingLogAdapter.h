#pragma once

#include <VelaHost_Ipc/IpcLogAdapter.h>

#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velahost_test {

/// One call of a log adapter: which function, and all that it was given.
struct LogCall
{
    enum class Function { Info, Debug, Error, RcvMsg, SendMsg };

    Function function;
    std::string text = {}; ///< What format and arguments make; empty for the message logs.
    int category = 0;      ///< This and the rest: for the message logs.
    int connectionId = 0;
    std::string payload = {}; ///< The `length` bytes; empty when `length` is negative.
    int length = 0;

    static LogCall Info(std::string text) { return {Function::Info, std::move(text)}; }
    static LogCall Debug(std::string text) { return {Function::Debug, std::move(text)}; }
    static LogCall Error(std::string text) { return {Function::Error, std::move(text)}; }
    static LogCall RcvMsg(int category, int connectionId, std::string_view payload);
    static LogCall SendMsg(int category, int connectionId, std::string_view payload);

    bool operator==(const LogCall&) const = default;
};

std::ostream& operator<<(std::ostream& out, const LogCall& call);

/// A log adapter that keeps every call, in order. Messages are recorded byte by byte, so a memory
/// checker sees each byte that the adapter was promised. May be called from several threads.
class RecordingLogAdapter final : public VelaHost_Ipc::IpcLogAdapter
{
public:
    [[gnu::format(printf, 2, 3)]] void LogInfo(const char* format, ...) override;
    [[gnu::format(printf, 2, 3)]] void LogDebug(const char* format, ...) override;
    [[gnu::format(printf, 2, 3)]] void LogError(const char* format, ...) override;
    void LogRcvMsg(int category, int connectionId, const void* payload, int length) override;
    void LogSendMsg(int category, int connectionId, const void* payload, int length) override;

    /// The calls so far.
    std::vector<LogCall> GetCalls() const;
    /// The calls since the last `Take`, which are forgotten.
    std::vector<LogCall> Take();

private:
    void Record(LogCall call);

    mutable std::mutex m_Mutex;
    std::vector<LogCall> m_Calls; ///< Guarded by `m_Mutex`.
};

} // namespace velahost_test
