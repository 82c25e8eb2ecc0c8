#include "Transcript.h"

#include "support/interpose/Interposed.h"

#include <algorithm>
#include <cstdarg>
#include <regex>

namespace velahost_test {

void Transcript::LogInfo(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    WriteList("info", format, arguments);
    va_end(arguments);
}

void Transcript::LogDebug(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    WriteList("debug", format, arguments);
    va_end(arguments);
}

void Transcript::LogError(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    WriteList("error", format, arguments);
    va_end(arguments);
}

void Transcript::LogRcvMsg(int category, int connectionId, const void*, int length)
{
    Write("received %d %d %d; ", category, connectionId, length);
}

void Transcript::LogSendMsg(int category, int connectionId, const void*, int length)
{
    Write("sends %d %d %d; ", category, connectionId, length);
}

std::string Transcript::GetText() const
{
    return std::regex_replace(std::string(m_Text), std::regex("(ocket |max=)[0-9]+"), "$1#");
}

void Transcript::Write(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    const int length =
        interposed::vsnprintf.Real(m_Text + m_Length, sizeof m_Text - m_Length, format, arguments);
    va_end(arguments);
    m_Length =
        std::min<unsigned int>(m_Length + static_cast<unsigned int>(length), sizeof m_Text - 1);
}

void Transcript::WriteList(const char* kind, const char* format, __builtin_va_list arguments)
{
    char text[256];
    interposed::vsnprintf.Real(text, sizeof text, format, arguments);
    Write("%s %s; ", kind, text);
}

} // namespace velahost_test
