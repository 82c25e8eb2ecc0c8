#pragma once

#include "NumberText.h"

#include <VelaHost_Utility/Properties.h>

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

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

    PropertyLineReader(const PropertyLineReader&) = delete;
    PropertyLineReader& operator=(const PropertyLineReader&) = delete;

    /// Goes on to the next line that is neither blank nor a comment; false at the end of the input.
    /// Takes no more from the input than the lines that it has read.
    bool NextLine();

    /// The current line without its newline; gone with the next one and with
    /// `AddPropertyTo`. It holds no NUL.
    std::string_view GetLine() const { return {m_Line, m_Length}; }
    /// The position of its first character that is not blank.
    std::size_t GetStart() const { return m_Start; }

    /// Adds the property that the current line defines to `table`; cuts the line into pieces,
    /// in place.
    void AddPropertyTo(Properties& table);

    /// Rejects the current line.
    [[noreturn]] void Fail(const char* text, const Exception::Context& site);

private:
    void ReadLine();
    /// The current line ends with the first `length` characters of the piece.
    void EndLine(std::size_t length);
    template <typename Value>
    void Add(Properties& table, const char* name, Value value);
    int GetLineNumber() const { return static_cast<int>(m_LineNumber); }

    std::istream& m_In;
    Properties& m_Loaded;
    const PropertyLineRules& m_Rules;

    unsigned int m_LineNumber = 0;
    // The current line, followed by a NUL, where it was read to: `m_Piece` or, if longer,
    // `m_LongLine`.
    char* m_Line = nullptr;
    std::size_t m_Length = 0;
    std::size_t m_Start = 0;
    char m_Piece[512];
    std::string m_LongLine;
};

} // namespace VelaHost_Utility
