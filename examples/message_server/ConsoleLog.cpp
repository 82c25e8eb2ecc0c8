#include "ConsoleLog.h"

#include <VelaHost_OS/SystemInfo.h>

#include <cstdio>

void ConsoleLog::LogInfo(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    Print(s_Info, format, arguments);
    va_end(arguments);
}

void ConsoleLog::LogDebug(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    Print(s_Debug, format, arguments);
    va_end(arguments);
}

void ConsoleLog::LogError(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    Print(s_Errors, format, arguments);
    va_end(arguments);
}

void ConsoleLog::LogRcvMsg(int category, int connectionId, const void* /*payload*/, int length)
{
    PrintMessage("received", category, connectionId, length);
}

void ConsoleLog::LogSendMsg(int category, int connectionId, const void* /*payload*/, int length)
{
    PrintMessage("sending", category, connectionId, length);
}

void ConsoleLog::Print(unsigned int level, const char* format, std::va_list arguments) const
{
    if (level <= m_Level) {
        char text[256];
        std::vsnprintf(text, sizeof text, format, arguments);
        PrintLine(text);
    }
}

void ConsoleLog::PrintMessage(const char* what, int category, int connectionId, int length) const
{
    if (m_Level >= s_Messages) {
        PrintLine(std::string(what) + ": category " + std::to_string(category) + ", connection " +
                  std::to_string(connectionId) + ", length " + std::to_string(length));
    }
}

void PrintLine(const std::string& text)
{
    unsigned int hour = 0;
    unsigned int minute = 0;
    unsigned int second = 0;
    unsigned int milliseconds = 0;
    VelaHost_OS::GetLogTime(&hour, &minute, &second, &milliseconds);
    std::printf("%02u:%02u:%02u.%03u %s\n", hour, minute, second, milliseconds, text.c_str());
    std::fflush(stdout);
}
