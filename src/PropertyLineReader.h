#pragma once

#include "NumberText.h"

#include <VelaHost_Utility/Properties.h>

#include <iosfwd>
#include <string>

namespace VelaHost_Utility {

/// Where the flat and the sectioned reader differ on property lines.
struct PropertyLineRules
{
    NumberRange numberRange;
    const char* missingSignText;

    Exception::Context unreadableSite;
    Exception::Context nulSite;
    Exception::Context missingSignSite;
    Exception::Context missingQuoteSite;
    Exception::Context afterQuoteSite;
    Exception::Context badNumberSite;
};

/// Reads a configuration line by line. Failures throw `PropertiesException` and leave their
/// explanation, with the line's number, in the store that is being loaded.
class PropertyLineReader
{
public:
    PropertyLineReader(std::istream& in, Properties& loaded, const PropertyLineRules& rules)
        : m_In(in), m_Loaded(loaded), m_Rules(rules)
    {}

    /// Goes on to the next line that is neither blank nor a comment; false at the end of the input.
    /// Takes no more from the input than the lines that it has read.
    bool NextLine();

    /// The current line without its newline. It holds no NUL.
    const std::string& GetLine() const { return m_Line; }
    /// The position of its first character that is not blank.
    std::size_t GetStart() const { return m_Start; }

    /// Adds the property that the current line defines to `table`.
    void AddPropertyTo(Properties& table);

    /// Rejects the current line.
    [[noreturn]] void Fail(const char* text, const Exception::Context& site);

private:
    void ReadLine();
    template <typename Value>
    void Add(Properties& table, Value value);
    int GetLineNumber() const { return static_cast<int>(m_LineNumber); }

    std::istream& m_In;
    Properties& m_Loaded;
    const PropertyLineRules& m_Rules;

    unsigned int m_LineNumber = 0;
    std::string m_Line;
    std::size_t m_Start = 0;
    // Kept from line to line for their memory.
    std::string m_Name;
    std::string m_Value;
};

} // namespace VelaHost_Utility
