#include "oracle/ReferenceReader.h"

#include <ios>
#include <locale>
#include <sstream>

namespace velahost_test {
namespace {

struct Refusal
{
    std::string site;
};

struct PastTheEnd
{};

const char* const s_Blanks = " \t";

enum class Format { Flat, Sectioned };

class Load
{
public:
    Load(ReferenceStore& store, Format format, bool sectionsAllowed)
        : m_Store(store), m_Format(format), m_SectionsAllowed(sectionsAllowed)
    {}

    ReferenceResult Run(std::string_view file)
    {
        ReferenceResult result;
        bool atEnd = false;
        while (!atEnd) {
            ++m_Line;
            std::string line;
            for (;;) {
                if (result.consumed == file.size()) {
                    atEnd = true;
                    break;
                }
                const char next = file[result.consumed];
                ++result.consumed;
                if (next == '\n') {
                    break;
                }
                line += next;
            }
            try {
                ReadLine(line);
            } catch (const Refusal& refusal) {
                result.kind = ReferenceResult::Kind::Refused;
                result.site = refusal.site;
                return result;
            } catch (const PastTheEnd&) {
                result.kind = ReferenceResult::Kind::OutOfRange;
                return result;
            }
        }
        m_Store.lastError.clear();
        return result;
    }

private:
    [[noreturn]] void Refuse(const std::string& text, int flatSite, int sectionedSite)
    {
        m_Store.lastError = text + AtLine();
        throw Refusal{m_Format == Format::Flat
                          ? "Properties:" + std::to_string(flatSite)
                          : "src/unix/PropertiesEx:" + std::to_string(sectionedSite)};
    }

    [[noreturn]] void RefuseTag(const std::string& text, int site) { Refuse(text, 0, site); }

    std::string AtLine() const { return " at line " + std::to_string(m_Line); }

    void ReadLine(const std::string& line)
    {
        const std::size_t first = line.find_first_not_of(s_Blanks);
        if (first == std::string::npos || line[first] == '#') {
            return;
        }
        if (line.find('\0') != std::string::npos) {
            Refuse("Invalid syntax (NUL character)", 156, 81);
        }
        if (m_SectionsAllowed && line[first] == '<') {
            ReadTag(line.substr(first));
        } else {
            ReadProperty(line);
        }
    }

    void ReadTag(const std::string& tag)
    {
        if (tag.size() == 1) {
            throw PastTheEnd{};
        }
        const std::size_t typeEnd = tag.find_first_of(" \t>", 1);
        if (tag[1] == '/') {
            if (m_Section == nullptr) {
                RefuseTag("End section tag outside of any section", 90);
            }
            const std::string type =
                typeEnd == std::string::npos ? tag.substr(2) : tag.substr(2, typeEnd - 2);
            if (type != m_SectionType) {
                RefuseTag("End section tag does not match open section type", 95);
            }
            m_Section = nullptr;
            m_SectionType.clear();
            return;
        }
        if (m_Section != nullptr) {
            RefuseTag("Section not allowed within another section", 104);
        }
        std::string arguments;
        std::string type;
        if (typeEnd == std::string::npos) {
            type = tag.substr(1);
        } else {
            type = tag.substr(1, typeEnd - 1);
            if (tag[typeEnd] != '>') {
                const std::size_t close = tag.find('>', typeEnd);
                if (close == std::string::npos) {
                    RefuseTag("Invalid syntax (missing closing > sign)", 113);
                }
                arguments = tag.substr(typeEnd, close - typeEnd);
            }
        }
        std::vector<ReferenceSection>& ofThisType = m_Store.sections[type];
        ofThisType.push_back(ReferenceSection{Words(arguments)});
        m_Section = &ofThisType.back();
        m_SectionType = type;
    }

    static std::vector<std::string> Words(const std::string& text)
    {
        std::vector<std::string> words;
        std::string word;
        for (const char next : text) {
            if (next != ' ' && next != '\t') {
                word += next;
            } else if (!word.empty()) {
                words.push_back(word);
                word.clear();
            }
        }
        if (!word.empty()) {
            words.push_back(word);
        }
        return words;
    }

    void ReadProperty(const std::string& line)
    {
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos) {
            Refuse(m_Format == Format::Flat ? "Invalid syntax (missing = sign)"
                                            : "Invalid syntax (missing '=' sign)",
                   161, 129);
        }
        const std::string name = ReferenceTrimmed(line.substr(0, equals));
        const std::string value = ReferenceTrimmed(line.substr(equals + 1));
        if (!value.empty() && value[0] == '"') {
            const std::size_t quote = value.find('"', 1);
            if (quote == std::string::npos) {
                Refuse("String value missing closing quote", 176, 144);
            }
            const std::string behind = ReferenceTrimmed(value.substr(quote + 1));
            if (!behind.empty() && behind[0] != '#') {
                Refuse("Invalid characters following string value", 182, 150);
            }
            Add(name, value.substr(1, quote - 1), 270);
        } else if (m_Format == Format::Flat) {
            AddNumber(name, ReferenceNumber<int>(value));
        } else {
            AddNumber(name, ReferenceNumber<unsigned int>(value));
        }
    }

    template <typename Number>
    void AddNumber(const std::string& name, std::optional<Number> number)
    {
        if (!number) {
            Refuse("Invalid UInt value", 214, 188);
        }
        Add(name, static_cast<unsigned int>(*number), 284);
    }

    void Add(const std::string& name, const ReferenceValue& value, int duplicateSite)
    {
        ReferenceTable& table = m_Section == nullptr ? m_Store.properties : m_Section->properties;
        if (table.count(name) != 0) {
            // Told by the table's own store; the store being loaded adds the line.
            std::string& lastError =
                m_Section == nullptr ? m_Store.lastError : m_Section->lastError;
            lastError = "Property multiply defined";
            m_Store.lastError += AtLine();
            throw Refusal{"Properties:" + std::to_string(duplicateSite)};
        }
        table[name] = value;
    }

    ReferenceStore& m_Store;
    Format m_Format;
    bool m_SectionsAllowed;
    int m_Line = 0;
    ReferenceSection* m_Section = nullptr; ///< The open one.
    std::string m_SectionType = {};
};

} // namespace

ReferenceResult ReferenceLoad(ReferenceStore& store, std::string_view file)
{
    return Load(store, Format::Flat, false).Run(file);
}

ReferenceResult ReferenceLoad(ReferenceStore& store, std::string_view file, bool sectionsAllowed)
{
    return Load(store, Format::Sectioned, sectionsAllowed).Run(file);
}

template <typename Number>
std::optional<Number> ReferenceNumber(std::string_view text)
{
    std::istringstream in{std::string(text)};
    in.imbue(std::locale::classic());
    in.unsetf(std::ios_base::basefield);
    Number number = 0;
    in >> number;
    if (!in.fail()) {
        return number;
    }
    if (!in.eof()) {
        return std::nullopt;
    }
    return Number{0};
}

template std::optional<int> ReferenceNumber(std::string_view text);
template std::optional<unsigned int> ReferenceNumber(std::string_view text);

std::string ReferenceTrimmed(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(s_Blanks);
    if (first == std::string::npos) {
        return text;
    }
    const std::size_t last = text.find_last_not_of(s_Blanks);
    return text.substr(first, last - first + 1);
}

} // namespace velahost_test
