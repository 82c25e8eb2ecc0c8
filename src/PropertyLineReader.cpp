#include "PropertyLineReader.h"

#include "Blanks.h"

#include <istream>

namespace VelaHost_Utility {

bool PropertyLineReader::NextLine()
{
    while (!m_In.eof()) {
        ++m_LineNumber;
        ReadLine();
        const std::string_view line = GetLine();
        m_Start = SkipBlanks(line);
        if (m_Start == line.size() || line[m_Start] == '#') {
            continue;
        }
        // Names and texts are handed on as C strings, which would end at it without a word.
        if (line.find('\0') != std::string_view::npos) {
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
    m_LongLine.clear();
    for (;;) {
        m_In.getline(m_Piece, sizeof m_Piece);
        const auto count = static_cast<std::size_t>(m_In.gcount());
        if (m_In.good()) {
            // The newline is counted but not stored.
            EndLine(count - 1);
            return;
        }
        if (m_In.eof()) {
            EndLine(count);
            return;
        }
        // A full piece is reported as a failure, too.
        if (m_In.bad() || count != sizeof m_Piece - 1) {
            Fail("Input is not readable", m_Rules.unreadableSite);
        }
        m_In.clear();
        m_LongLine.append(m_Piece, count);
    }
}

void PropertyLineReader::EndLine(std::size_t length)
{
    if (m_LongLine.empty()) {
        m_Line = m_Piece;
        m_Length = length;
    } else {
        m_LongLine.append(m_Piece, length);
        m_Line = m_LongLine.data();
        m_Length = m_LongLine.size();
    }
}

void PropertyLineReader::AddPropertyTo(Properties& table)
{
    const std::string_view line = WithoutLastBlanks(GetLine());
    const std::size_t sign = line.find('=');
    if (sign == std::string_view::npos) {
        Fail(m_Rules.missingSignText, m_Rules.missingSignSite);
    }
    const char* name = m_Line;
    std::size_t nameEnd = sign;
    // A name of nothing but blanks stays as it is.
    if (m_Start < sign) {
        name += m_Start;
        nameEnd = WithoutLastBlanks(line.substr(0, sign)).size();
    }
    m_Line[nameEnd] = '\0';
    const std::size_t value = SkipBlanks(line, sign + 1);

    if (value < line.size() && line[value] == '"') {
        const std::size_t closingQuote = line.find('"', value + 1);
        if (closingQuote == std::string_view::npos) {
            Fail("String value missing closing quote", m_Rules.missingQuoteSite);
        }
        const std::size_t next = SkipBlanks(line, closingQuote + 1);
        if (next < line.size() && line[next] != '#') {
            Fail("Invalid characters following string value", m_Rules.afterQuoteSite);
        }
        m_Line[closingQuote] = '\0';
        Add<const char*>(table, name, m_Line + value + 1);
    } else {
        const std::optional<unsigned int> number =
            ReadNumber(line.substr(value), m_Rules.numberRange);
        if (!number) {
            Fail("Invalid UInt value", m_Rules.badNumberSite);
        }
        Add(table, name, *number);
    }
}

template <typename Value>
void PropertyLineReader::Add(Properties& table, const char* name, Value value)
{
    try {
        table.AddProperty(name, value);
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
