#include <VelaHost_Utility/PropertiesEx.h>

#include "Blanks.h"
#include "PropertyLineReader.h"
#include "SoughtName.h"

#include <internal/ThrowSite.h>

#include <memory>
#include <string_view>

namespace VelaHost_Utility {

namespace {

constexpr Exception::Context Site(unsigned int line)
{
    return ThrowSite("src/unix/PropertiesEx", line);
}

constexpr PropertyLineRules s_SectionedRules{
    .numberRange = NumberRange::Unsigned,
    .missingSignText = "Invalid syntax (missing '=' sign)",
    .unreadableSite = Site(80),
    .nulSite = Site(81),
    .missingSignSite = Site(129),
    .missingQuoteSite = Site(144),
    .afterQuoteSite = Site(150),
    .badNumberSite = Site(188),
};
constexpr Exception::Context s_NoSectionSite = Site(90);
constexpr Exception::Context s_WrongEndSite = Site(95);
constexpr Exception::Context s_NestedSite = Site(104);
constexpr Exception::Context s_MissingBracketSite = Site(113);

/// The element number `index`; null when there is none.
template <typename Element>
Element* At(std::vector<Element>& elements, int index)
{
    // A negative index becomes one beyond any size.
    const auto position = static_cast<std::size_t>(index);
    return position < elements.size() ? &elements[position] : nullptr;
}

/// The sections of one load: at most one is open.
class SectionTags
{
public:
    SectionTags(PropertyLineReader& reader, PropertiesEx& loaded)
        : m_Reader(reader), m_Loaded(loaded)
    {}

    /// Where properties go now.
    Properties& GetTable() { return m_Open != nullptr ? *m_Open : m_Loaded; }

    /// Opens or closes a section, as the current line says.
    void HandleLine()
    {
        const std::string line(m_Reader.GetLine());
        const std::size_t start = m_Reader.GetStart();
        const std::size_t typeEnd = line.find_first_of(" \t>", start + 1);
        if (line.at(start + 1) == '/') {
            Close(line.substr(start + 2, typeEnd - (start + 2)));
        } else {
            Open(line, start + 1, typeEnd);
        }
    }

private:
    void Close(const std::string& type)
    {
        if (m_Open == nullptr) {
            m_Reader.Fail("End section tag outside of any section", s_NoSectionSite);
        }
        if (type != m_OpenType) {
            m_Reader.Fail("End section tag does not match open section type", s_WrongEndSite);
        }
        m_Open = nullptr;
    }

    void Open(const std::string& line, std::size_t typeStart, std::size_t typeEnd)
    {
        if (m_Open != nullptr) {
            m_Reader.Fail("Section not allowed within another section", s_NestedSite);
        }
        std::string arguments;
        if (typeEnd != std::string::npos) {
            const std::size_t bracket = line.find('>', typeEnd);
            if (bracket == std::string::npos) {
                m_Reader.Fail("Invalid syntax (missing closing > sign)", s_MissingBracketSite);
            }
            arguments = line.substr(typeEnd, bracket - typeEnd);
        }
        m_OpenType = line.substr(typeStart, typeEnd - typeStart);
        m_Open = m_Loaded.AddSection(m_OpenType.c_str(), arguments.c_str());
    }

    PropertyLineReader& m_Reader;
    PropertiesEx& m_Loaded;
    PropertiesSection* m_Open = nullptr;
    std::string m_OpenType;
};

} // namespace

PropertiesEx::PropertiesEx() = default;

PropertiesEx::~PropertiesEx()
{
    Clear();
}

void PropertiesEx::Clear()
{
    Properties::Clear();
    for (const auto& [type, sections] : m_Sections) {
        for (PropertiesSection* section : sections) {
            delete section;
        }
    }
    m_Sections.clear();
}

PropertiesSection* PropertiesEx::AddSection(const char* type, const char* arguments)
{
    auto section = std::make_unique<PropertiesSection>(arguments);
    m_Sections[type].push_back(section.get());
    return section.release();
}

PropertiesSection* PropertiesEx::GetSection(const char* type, int index)
{
    const auto found = m_Sections.find(SoughtName(type));
    if (found == m_Sections.end()) {
        return nullptr;
    }
    PropertiesSection** section = At(found->second, index);
    return section != nullptr ? *section : nullptr;
}

void PropertiesEx::Load(std::istream& in, bool sectionsAllowed)
{
    PropertyLineReader reader(in, *this, s_SectionedRules);
    SectionTags tags(reader, *this);
    while (reader.NextLine()) {
        if (sectionsAllowed && reader.GetLine()[reader.GetStart()] == '<') {
            tags.HandleLine();
        } else {
            reader.AddPropertyTo(tags.GetTable());
        }
    }
    SetLastError(nullptr, -1);
}

PropertiesSection::PropertiesSection(const char* arguments)
{
    const std::string_view text(arguments);
    std::size_t end = 0;
    for (;;) {
        const std::size_t start = SkipBlanks(text, end);
        if (start == text.size()) {
            return;
        }
        end = start;
        while (end < text.size() && !IsBlank(text[end])) {
            ++end;
        }
        m_Arguments.emplace_back(text.substr(start, end - start));
    }
}

PropertiesSection::~PropertiesSection() = default;

const char* PropertiesSection::GetArg(int index)
{
    const std::string* argument = At(m_Arguments, index);
    return argument != nullptr ? argument->c_str() : nullptr;
}

} // namespace VelaHost_Utility
