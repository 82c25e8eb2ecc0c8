#include <VelaHost_Utility/Exception.h>

#include "TextFormat.h"

#include <VelaHost_OS/SystemInfo.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <new>

namespace VelaHost_Utility {

namespace {

constexpr unsigned int s_BadParmCode = 0x2005;
constexpr unsigned int s_NotImplementedCode = 0x2006;
constexpr unsigned int s_FeatureNotSupportedCode = 0x2007;
constexpr unsigned int s_BadStateCode = 0x2008;

std::string ExpandDetail(const char* format, std::va_list arguments)
{
    constexpr std::size_t bufferSize = 200;
    char detail[bufferSize] = "";
    // An expansion that fails half-way, for example at a character that can't be converted, still
    // shows what came before.
    if (std::vsnprintf(detail, bufferSize, format, arguments) < 0 && errno == ENOMEM) {
        throw std::bad_alloc();
    }
    return detail;
}

} // namespace

Exception::Exception(const Context& context, unsigned int errorCode)
    : m_Context(context), m_ErrorCode(errorCode), m_Text("Exception")
{}

Exception::~Exception() = default;

BadParmException::BadParmException(const Context& context, unsigned int index, const char* format,
                                   ...)
    : Exception(context, s_BadParmCode)
{
    std::va_list arguments;
    va_start(arguments, format);
    const std::string detail = ExpandDetail(format, arguments);
    va_end(arguments);
    SetText("BadParmException(Index=" + std::to_string(index) + "," + detail + ")");
    LogMe();
}

BadParmException::~BadParmException() = default;

NotImplementedException::NotImplementedException(const Context& context, const char* what)
    : Exception(context, s_NotImplementedCode)
{
    SetText(std::string("NotImplementedException(") + what + ")");
    LogMe();
}

NotImplementedException::~NotImplementedException() = default;

FeatureNotSupportedException::FeatureNotSupportedException(const Context& context, const char* what)
    : Exception(context, s_FeatureNotSupportedCode)
{
    SetText(std::string("FeatureNotSupportedException(") + what + ")");
    LogMe();
}

FeatureNotSupportedException::~FeatureNotSupportedException() = default;

BadStateException::BadStateException(const Context& context, const char* format, ...)
    : Exception(context, s_BadStateCode)
{
    std::va_list arguments;
    va_start(arguments, format);
    const std::string detail = ExpandDetail(format, arguments);
    va_end(arguments);
    SetText("BadStateException(" + detail + ")");
    LogMe();
}

BadStateException::~BadStateException() = default;

SystemException::SystemException(const Context& context, unsigned int errorCode)
    : Exception(context, errorCode),
      m_SysErr(static_cast<unsigned int>(VelaHost_OS::GetLastError()))
{
    SetText("SystemException(SysErr=0x" + Hexadecimal(m_SysErr) + ")");
    LogMe();
}

SystemException::~SystemException() = default;

} // namespace VelaHost_Utility
