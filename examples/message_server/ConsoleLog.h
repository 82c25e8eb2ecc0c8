#pragma once

#include <VelaHost_Ipc/IpcLogAdapter.h>

#include <cstdarg>
#include <string>

/// Prints what a transport logs, one line each with the local time, up to a level of detail.
class ConsoleLog : public VelaHost_Ipc::IpcLogAdapter
{
public:
    /// Each level includes those before it.
    enum Level : unsigned int { s_Errors, s_Info, s_Debug, s_Messages };

    explicit ConsoleLog(unsigned int level) : m_Level(level) {}

    void LogInfo(const char* format, ...) override;
    void LogDebug(const char* format, ...) override;
    void LogError(const char* format, ...) override;
    void LogRcvMsg(int category, int connectionId, const void* payload, int length) override;
    void LogSendMsg(int category, int connectionId, const void* payload, int length) override;

private:
    void Print(unsigned int level, const char* format, std::va_list arguments) const;
    void PrintMessage(const char* what, int category, int connectionId, int length) const;

    const unsigned int m_Level;
};

/// Prints one line with the local time, whole and at once.
void PrintLine(const std::string& text);
