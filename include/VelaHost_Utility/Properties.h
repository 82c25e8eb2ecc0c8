#pragma once

#include <VelaHost_Utility/Exception.h>
#include <VelaHost_Utility/Export.h>

#include <functional>
#include <iosfwd>
#include <map>
#include <string>

namespace VelaHost_Utility {

/// A configuration can't be read, or a name would be defined twice. Code 0x2FFF, text
/// "PropertiesException"; the explanation is the last-error text of the store that threw it.
class VELAHOST_EXPORT PropertiesException : public Exception
{
public:
    /// Logs itself, as all of the family do.
    explicit PropertiesException(const Context& context) : Exception(context, s_PropertiesCode)
    {
        SetText("PropertiesException");
        LogMe();
    }
    ~PropertiesException() override;

private:
    static constexpr unsigned int s_PropertiesCode = 0x2FFF;
};

/// A typed value of a configuration store: a `UIntProperty` or a `StringProperty`, as `GetType()`
/// tells. A plain record: it is never deleted through this base.
class VELAHOST_EXPORT Property
{
public:
    /// What a property holds.
    enum Type : unsigned int {
        AnyType = 0,   ///< For lookups only: matches both of the others.
        UIntType = 1,  ///< A `UIntProperty`.
        StringType = 2 ///< A `StringProperty`.
    };

    /// For the derived classes.
    explicit Property(Type type) : m_Type(type) {}

    /// Never `AnyType` in a store.
    Type GetType() const { return m_Type; }

private:
    const Type m_Type; // Decides how an entry is released, so nothing may be assigned over it.
};

/// A number.
class VELAHOST_EXPORT UIntProperty : public Property
{
public:
    /// Holds `value`.
    explicit UIntProperty(unsigned int value) : Property(UIntType), m_Value(value) {}

    /// The number.
    unsigned int GetValue() const { return m_Value; }
    /// Replaces the number.
    void SetValue(unsigned int value) { m_Value = value; }

private:
    unsigned int m_Value;
};

/// A text, owned.
class VELAHOST_EXPORT StringProperty : public Property
{
public:
    /// Keeps a copy of `value`, which must not be null.
    explicit StringProperty(const char* value) : Property(StringType), m_Value(value) {}

    /// The text; valid until the next `SetValue`.
    const std::string& GetValue() const { return m_Value; }
    /// Replaces the text by a copy of `value`, which must not be null.
    void SetValue(const char* value) { m_Value = value; }

private:
    std::string m_Value;
};

/// A store of named, typed values, filled from flat files of `name = value` lines
/// (docs/formats.md) and by the program.
///
/// One entry per name, whatever its type. Names are compared byte by byte and may be empty. The
/// store owns its entries: what it returns lives until `Clear()` or the store's end.
///
/// A store is not locked: one thread fills it, and any number may read it after that. Running out
/// of memory leaves every operation as `std::bad_alloc`, nothing leaks and no entry is half made.
/// No text given to it may be null, except to `SetLastError`.
class VELAHOST_EXPORT Properties
{
public:
    Properties();
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;
    virtual ~Properties();

    /// Releases every entry; the last-error text stays.
    void Clear();

    /// The entry of that name, null when there is none or `type` is neither `AnyType` nor its own.
    Property* GetProperty(const char* name, Property::Type type);
    /// The number of that name; null when there is none or it is a text.
    UIntProperty* GetUIntProperty(const char* name);
    /// The text of that name; null when there is none or it is a number.
    StringProperty* GetStringProperty(const char* name);

    /// Adds a number and returns it (write 0U, not 0, for zero: 0 is a null pointer as well).
    /// Throws `PropertiesException` when an entry of that name, of either type, exists; the last
    /// error is then "Property multiply defined".
    UIntProperty* AddProperty(const char* name, unsigned int value);
    /// Adds a text, of which it keeps a copy, and returns it. Throws as above.
    StringProperty* AddProperty(const char* name, const char* value);

    /// Adds one entry for every property line of `in`, from where `in` stands to its end; what the
    /// store holds already stays. Empties the last error.
    ///
    /// Throws `PropertiesException` at the first bad line, including one that defines a name for
    /// the second time, and when `in` can't be read; the last error then tells why and ends in
    /// " at line " and the line's number, counted from 1. Entries of earlier lines stay, and `in`
    /// stands behind the bad line: no more is taken from it than the lines read.
    void Load(std::istream& in);

    /// Why the last load or addition failed; empty after a successful load.
    const std::string& GetLastError() const { return m_LastError; }
    /// Sets the last error to `text`, followed by " at line " and the line number if `line` is not
    /// negative. Without a text (null) the line part is appended to the last error; with neither,
    /// the last error is emptied.
    void SetLastError(const char* text, int line);

private:
    friend class PropertiesContents;

    template <typename P, typename Value>
    [[gnu::visibility("hidden")]] P* Add(const char* name, Value value,
                                         const Exception::Context& duplicateSite);

    std::map<std::string, Property*, std::less<>> m_Properties;
    std::string m_LastError;
};

/// The number of that name, or `defaultValue` when there is none or it is a text.
VELAHOST_EXPORT unsigned int GetUIntPropertyValue(Properties& store, const char* name,
                                                  unsigned int defaultValue);

/// The text of that name, or `defaultValue` itself, not a copy, when there is none or it is a
/// number: a temporary default must not be used after the expression.
VELAHOST_EXPORT const std::string& GetStringPropertyValue(Properties& store, const char* name,
                                                          const std::string& defaultValue);

} // namespace VelaHost_Utility
