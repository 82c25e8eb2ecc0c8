#include "RecordingLogAdapter.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

namespace velahost_test {

namespace {

std::string Expand(const char* format, std::va_list arguments)
{
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    return text;
}

std::string Bytes(const void* payload, int length)
{
    return length > 0
               ? std::string(static_cast<const char*>(payload), static_cast<std::size_t>(length))
               : std::string();
}

const char* Name(LogCall::Function function)
{
    static constexpr const char* s_Names[] = {"LogInfo", "LogDebug", "LogError", "LogRcvMsg",
                                              "LogSendMsg"};
    return s_Names[static_cast<std::size_t>(function)];
}

} // namespace

LogCall LogCall::RcvMsg(int category, int connectionId, std::string_view payload)
{
    const int length = static_cast<int>(payload.size());
    return {Function::RcvMsg, {}, category, connectionId, std::string(payload), length};
}

LogCall LogCall::SendMsg(int category, int connectionId, std::string_view payload)
{
    const int length = static_cast<int>(payload.size());
    return {Function::SendMsg, {}, category, connectionId, std::string(payload), length};
}

std::ostream& operator<<(std::ostream& out, const LogCall& call)
{
    out << Name(call.function) << '(';
    if (call.function != LogCall::Function::RcvMsg && call.function != LogCall::Function::SendMsg) {
        return out << '"' << call.text << "\")";
    }
    out << call.category << ", " << call.connectionId << ", ";
    for (const char c : call.payload) {
        const auto byte = static_cast<unsigned char>(c);
        char hexadecimal[3];
        std::snprintf(hexadecimal, sizeof hexadecimal, "%02x", byte);
        out << hexadecimal;
    }
    return out << ", " << call.length << ')';
}

void RecordingLogAdapter::LogInfo(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    Record(LogCall::Info(Expand(format, arguments)));
    va_end(arguments);
}

void RecordingLogAdapter::LogDebug(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    Record(LogCall::Debug(Expand(format, arguments)));
    va_end(arguments);
}

void RecordingLogAdapter::LogError(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    Record(LogCall::Error(Expand(format, arguments)));
    va_end(arguments);
}

void RecordingLogAdapter::LogRcvMsg(int category, int connectionId, const void* payload, int length)
{
    Record({LogCall::Function::RcvMsg, {}, category, connectionId, Bytes(payload, length), length});
}

void RecordingLogAdapter::LogSendMsg(int category, int connectionId, const void* payload,
                                     int length)
{
    Record(
        {LogCall::Function::SendMsg, {}, category, connectionId, Bytes(payload, length), length});
}

std::vector<LogCall> RecordingLogAdapter::GetCalls() const
{
    const std::lock_guard lock(m_Mutex);
    return m_Calls;
}

std::vector<LogCall> RecordingLogAdapter::Take()
{
    const std::lock_guard lock(m_Mutex);
    return std::exchange(m_Calls, {});
}

void RecordingLogAdapter::Record(LogCall call)
{
    const std::lock_guard lock(m_Mutex);
    m_Calls.push_back(std::move(call));
}

} // namespace velahost_test
