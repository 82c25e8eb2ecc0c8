#include "PropertyLineReader.h"

#include "Blanks.h"

#include <VelaHost_Utility/StringHelpers.h>

#include <istream>

namespace VelaHost_Utility {

bool PropertyLineReader::NextLine()
{
    while (!m_In.eof()) {
        ++m_LineNumber;
        ReadLine();
        m_Start = m_Line.find_first_not_of(s_Blanks);
        if (m_Start == std::string::npos || m_Line[m_Start] == '#') {
            continue;
        }
        // Names and texts are handed on as C strings, which would end at it without a word.
        if (m_Line.find('\0') != std::string::npos) {
            Fail("Invalid syntax (NUL character)", m_Rules.nulSite);
        }
        return true;
    }
    return false;
}

// std::getline(istream&, string&) would be shorter, but turns a failed allocation into a failed
// stream.
void PropertyLineReader::ReadLine()
{
    constexpr std::streamsize pieceSize = 512;
    char piece[pieceSize];
    m_Line.clear();
    for (;;) {
        m_In.getline(piece, pieceSize);
        const std::streamsize count = m_In.gcount();
        if (m_In.good()) {
            // The newline is counted but not stored.
            m_Line.append(piece, static_cast<std::size_t>(count - 1));
            return;
        }
        const bool ended = m_In.eof();
        if (!ended) {
            // A full piece is reported as a failure, too.
            if (m_In.bad() || count != pieceSize - 1) {
                Fail("Input is not readable", m_Rules.unreadableSite);
            }
            m_In.clear();
        }
        m_Line.append(piece, static_cast<std::size_t>(count));
        if (ended) {
            return;
        }
    }
}

void PropertyLineReader::AddPropertyTo(Properties& table)
{
    const std::size_t sign = m_Line.find('=');
    if (sign == std::string::npos) {
        Fail(m_Rules.missingSignText, m_Rules.missingSignSite);
    }
    m_Name.assign(m_Line, 0, sign);
    chop(m_Name);
    m_Value.assign(m_Line, sign + 1, std::string::npos);
    chop(m_Value);

    if (m_Value.starts_with('"')) {
        const std::size_t closingQuote = m_Value.find('"', 1);
        if (closingQuote == std::string::npos) {
            Fail("String value missing closing quote", m_Rules.missingQuoteSite);
        }
        const std::size_t next = m_Value.find_first_not_of(s_Blanks, closingQuote + 1);
        if (next != std::string::npos && m_Value[next] != '#') {
            Fail("Invalid characters following string value", m_Rules.afterQuoteSite);
        }
        m_Value.resize(closingQuote);
        Add(table, m_Value.c_str() + 1);
    } else {
        const std::optional<unsigned int> number = ReadNumber(m_Value, m_Rules.numberRange);
        if (!number) {
            Fail("Invalid UInt value", m_Rules.badNumberSite);
        }
        Add(table, *number);
    }
}

template <typename Value>
void PropertyLineReader::Add(Properties& table, Value value)
{
    try {
        table.AddProperty(m_Name.c_str(), value);
    } catch (const PropertiesException&) {
        m_Loaded.SetLastError(nullptr, GetLineNumber());
        throw;
    }
}

void PropertyLineReader::Fail(const char* text, const Exception::Context& site)
{
    m_Loaded.SetLastError(text, GetLineNumber());
    throw PropertiesException(site);
}

} // namespace VelaHost_Utility
