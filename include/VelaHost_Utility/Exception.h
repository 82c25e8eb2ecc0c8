#pragma once

#include <VelaHost_Utility/Export.h>

#include <string>
#include <utility>

/// Exceptions, string helpers, reference counting and observers, locking, configuration, timers.
namespace VelaHost_Utility {

/// Root of every failure that the library reports by exception.
///
/// An exception logs itself: each concrete constructor composes its text and then calls `LogMe()`,
/// so constructing one leaves exactly one line in the log whether or not it is ever thrown or
/// caught. Exceptions are thrown by value and caught by reference.
///
/// A failure to allocate the text leaves the constructor as `std::bad_alloc`; nothing is logged
/// then. Exceptions may be constructed on any thread; one object is used by one thread at a time.
class VELAHOST_EXPORT Exception
{
public:
    /// Where a failure arose and who logs it. A plain value that borrows its texts: they must
    /// outlive every exception built from it (string literals in practice).
    struct Context
    {
        /// `compName`: trace module that the line is logged under, null for the default module
        /// "VelaHost". `file`, `line`: the throw site. `logger`: called by `LogMe()`, never null.
        constexpr Context(const char* compName, const char* file, unsigned int line,
                          void (*logger)(const Exception&)) noexcept
            : m_CompName(compName), m_File(file), m_Line(line), m_Logger(logger)
        {}

        const char* m_CompName;             ///< Trace module; null for the default one.
        const char* m_File;                 ///< Source file of the throw site.
        unsigned int m_Line;                ///< Line of the throw site.
        void (*m_Logger)(const Exception&); ///< Called by `LogMe()`.
    };

    virtual ~Exception();

    /// Hands this exception to the context's logger.
    void LogMe() { m_Context.m_Logger(*this); }

    /// Where it arose.
    const Context& GetContext() const { return m_Context; }
    /// The code of its class, or what the throw site gave; docs/errors.md has a table.
    unsigned int GetErrorCode() const { return m_ErrorCode; }
    /// The one-line description; lives as long as the exception.
    const std::string& GetText() const { return m_Text; }

protected:
    /// For concrete classes: the text is "Exception" until `SetText`, and nothing is logged yet.
    Exception(const Context& context, unsigned int errorCode);

    /// Replaces the text; to be called before `LogMe()`.
    void SetText(std::string text) { m_Text = std::move(text); }

private:
    Context m_Context;
    unsigned int m_ErrorCode;
    std::string m_Text;
};

/// A caller passed a bad argument. Code 0x2005, text "BadParmException(Index=INDEX,DETAIL)".
class VELAHOST_EXPORT BadParmException : public Exception
{
public:
    /// `index` tells which argument was bad; it is shown, not stored. `format` and what follows
    /// are expanded as by printf; a detail longer than 199 characters is cut there.
    [[gnu::format(printf, 4, 5)]] BadParmException(const Context& context, unsigned int index,
                                                   const char* format, ...);
    ~BadParmException() override;
};

/// An operation that does not exist yet. Code 0x2006, text "NotImplementedException(WHAT)".
class VELAHOST_EXPORT NotImplementedException : public Exception
{
public:
    /// `what` names the operation; the text keeps a copy. Null is taken for an empty one.
    NotImplementedException(const Context& context, const char* what);
    ~NotImplementedException() override;
};

/// An operation that this platform or product lacks. Code 0x2007, text
/// "FeatureNotSupportedException(WHAT)".
class VELAHOST_EXPORT FeatureNotSupportedException : public Exception
{
public:
    /// `what` names the operation; the text keeps a copy. Null is taken for an empty one.
    FeatureNotSupportedException(const Context& context, const char* what);
    ~FeatureNotSupportedException() override;
};

/// An operation at the wrong time. Code 0x2008, text "BadStateException(DETAIL)".
class VELAHOST_EXPORT BadStateException : public Exception
{
public:
    /// `format` and what follows are expanded as by printf; a detail longer than 199 characters
    /// is cut there.
    [[gnu::format(printf, 3, 4)]] BadStateException(const Context& context, const char* format,
                                                    ...);
    ~BadStateException() override;
};

/// A failed call to the operating system. The code is the throw site's own (0x2002 throughout
/// this library); the system's reason is kept beside it and is what the text shows:
/// "SystemException(SysErr=0xHEX)".
class VELAHOST_EXPORT SystemException : public Exception
{
public:
    /// Reads `errno`, once, before anything can change it.
    SystemException(const Context& context, unsigned int errorCode);
    ~SystemException() override;

    /// The `errno` of the moment of construction. Calls that return their error number instead of
    /// setting `errno` leave whatever was there before, often 0.
    unsigned int GetSysErr() const { return m_SysErr; }

private:
    unsigned int m_SysErr;
};

/// The standard logger: writes "TEXT at FILE:LINE" under the trace label "Exception" of the
/// context's module, or, when the trace library does not know that module, to standard output as
/// one whole, flushed line. Safe from any thread; keeps `errno`. Throws `std::bad_alloc` when there
/// is no memory for the line.
VELAHOST_EXPORT void DefaultExceptionLogger(const Exception& e);

} // namespace VelaHost_Utility
