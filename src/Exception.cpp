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

/// An expanded format. It is made without an exception, which would go past the caller's `va_end`.
class Detail
{
public:
    Detail(const char* format, std::va_list arguments) noexcept
        : m_RanOutOfMemory(std::vsnprintf(m_Text, sizeof m_Text, format, arguments) < 0 &&
                           errno == ENOMEM)
    {}

    /// An expansion that failed half-way for another reason, for example at a character that can't
    /// be converted, shows what came before.
    std::string GetText() const
    {
        if (m_RanOutOfMemory) {
            throw std::bad_alloc();
        }
        return m_Text;
    }

private:
    char m_Text[200] = "";
    bool m_RanOutOfMemory;
};

std::string TextOf(const char* name, const char* what)
{
    return std::string(name) + "(" + (what != nullptr ? what : "") + ")";
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
    const Detail detail(format, arguments);
    va_end(arguments);
    SetText("BadParmException(Index=" + std::to_string(index) + "," + detail.GetText() + ")");
    LogMe();
}

BadParmException::~BadParmException() = default;

NotImplementedException::NotImplementedException(const Context& context, const char* what)
    : Exception(context, s_NotImplementedCode)
{
    SetText(TextOf("NotImplementedException", what));
    LogMe();
}

NotImplementedException::~NotImplementedException() = default;

FeatureNotSupportedException::FeatureNotSupportedException(const Context& context, const char* what)
    : Exception(context, s_FeatureNotSupportedCode)
{
    SetText(TextOf("FeatureNotSupportedException", what));
    LogMe();
}

FeatureNotSupportedException::~FeatureNotSupportedException() = default;

BadStateException::BadStateException(const Context& context, const char* format, ...)
    : Exception(context, s_BadStateCode)
{
    std::va_list arguments;
    va_start(arguments, format);
    const Detail detail(format, arguments);
    va_end(arguments);
    SetText("BadStateException(" + detail.GetText() + ")");
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
