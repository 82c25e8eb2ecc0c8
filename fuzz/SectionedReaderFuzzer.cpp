// `PropertiesEx::Load`, with and without sections: reads any bytes as the reference reader does,
// and reads back what was written.

#include "FileWriter.h"
#include "Fuzz.h"
#include "StoreCheck.h"
#include "oracle/ReaderComparison.h"

#include <VelaHost_Utility/PropertiesEx.h>

#include <algorithm>
#include <sstream>

namespace velahost_fuzz {

namespace {

using namespace std::string_view_literals;
using velahost_test::FileFormat;
using velahost_test::ReferenceSection;
using velahost_test::ReferenceStore;
using velahost_test::ReferenceTable;
using VelaHost_Utility::PropertiesEx;
using VelaHost_Utility::PropertiesSection;

/// Writes the start tag of a section, which `expected` gets, too, and gives its type.
std::string WriteStartTag(Input& input, FileWriter& writer, ReferenceStore& expected)
{
    std::string type = writer.Characters(7, " \t\n>\0"sv);
    if (type.starts_with('/')) {
        type.front() = '_';
    }
    const unsigned int layout = input.Byte();
    std::string tag = "<" + type;
    ReferenceSection section{};
    for (unsigned int words = layout & 3U; words > 0; --words) {
        const std::string word = writer.Characters(7, " \t\n>\0"sv);
        tag += (layout & 4U) != 0 ? "\t " : " ";
        tag += word;
        if (!word.empty()) {
            section.arguments.push_back(word);
        }
    }
    // Only a tag with a type and without arguments may do without its `>`: a bare `<` is refused.
    const bool isClosed = (layout & 3U) != 0 || type.empty() || (layout & 8U) != 0;
    if (isClosed) {
        tag += ">" + writer.Characters(7, "\n\0"sv);
    }
    writer.WriteLine(tag);
    expected.sections[type].push_back(section);
    return type;
}

void WriteEndTag(Input& input, FileWriter& writer, const std::string& type)
{
    static constexpr const char* s_Ends[] = {">", "", " >", "\tanything", "> # closed"};
    writer.WriteLine("</" + type + s_Ends[input.Byte() % std::size(s_Ends)]);
}

void RoundTrip(Input& input)
{
    ReferenceStore expected;
    FileWriter writer(input, FileWriter::Numbers::Unsigned);
    while (!input.IsEmpty()) {
        const unsigned int layout = input.Byte();
        if ((layout & 3U) != 0) {
            writer.WriteProperty(expected.properties);
            continue;
        }
        const std::string type = WriteStartTag(input, writer, expected);
        ReferenceTable& table = expected.sections[type].back().properties;
        for (unsigned int count = (layout >> 2U) & 3U; count > 0; --count) {
            writer.WriteProperty(table);
        }
        if (input.IsEmpty() && (layout & 16U) != 0) {
            break; // A section may be open at the end.
        }
        WriteEndTag(input, writer, type);
    }

    std::istringstream file(writer.GetFile());
    PropertiesEx store;
    RequireLoads(store, writer.GetFile(), [&] { store.Load(file, true); });
    RequireHolds(store, expected.properties, writer.GetFile());
    for (const auto& [type, sections] : expected.sections) {
        int index = 0;
        for (const ReferenceSection& section : sections) {
            PropertiesSection* read = store.GetSection(type.c_str(), index++);
            if (read == nullptr) {
                Fail("section lost: " + velahost_test::Escaped(writer.GetFile()));
            }
            RequireHolds(*read, section.properties, writer.GetFile());
            int argument = 0;
            for (const std::string& word : section.arguments) {
                const char* const kept = read->GetArg(argument++);
                Require(kept != nullptr && word == kept, "arguments are read as written");
            }
            Require(read->GetArg(argument) == nullptr, "no argument is read twice");
        }
        Require(store.GetSection(type.c_str(), index) == nullptr, "no section is read twice");
    }
}

} // namespace

} // namespace velahost_fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace velahost_fuzz;
    Input input(data, size);
    switch (input.Byte()) {
    case 'R':
        RoundTrip(input);
        break;
    case 'N':
        RequireSameReading({FileFormat::SectionedWithoutTags, {input.Rest()}, "earlier"});
        break;
    case '2': {
        // Sections are never duplicates, properties at the top level always.
        const std::string file = input.Rest();
        RequireSameReading({FileFormat::Sectioned, {file, file}, "earlier"});
        break;
    }
    default:
        RequireSameReading({FileFormat::Sectioned, {input.Rest()}});
    }
    return 0;
}
