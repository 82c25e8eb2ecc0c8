#include "Operation.h"

#include <VelaHost_Utility/Properties.h>
#include <VelaHost_Utility/PropertiesEx.h>
#include <VelaHost_Utility/StringHelpers.h>

#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace velahost_test {

namespace {

using VelaHost_Utility::Properties;
using VelaHost_Utility::PropertiesEx;
using VelaHost_Utility::PropertiesException;
using VelaHost_Utility::PropertiesSection;
using VelaHost_Utility::Property;

// Names and texts too long to be kept without memory.
constexpr const char* s_Name = "a name that needs memory of its own";
constexpr const char* s_Text = "a text that needs memory of its own";

/// A store with one entry, and a file.
template <typename Store>
struct StoreAndFile
{
    std::istringstream file;
    Store store;

    StoreAndFile() { store.AddProperty("first", 1U); }

    /// The numbers and texts that are there, of the names that the files define.
    std::string GetState()
    {
        std::string state;
        for (const char* name : {"first", "number", "second", s_Name}) {
            if (const auto* number = store.GetUIntProperty(name)) {
                state += std::to_string(number->GetValue()) + ' ';
            } else if (const auto* text = store.GetStringProperty(name)) {
                state += '"' + text->GetValue() + "\" ";
            } else {
                state += "- ";
            }
        }
        return state + "error \"" + store.GetLastError() + '"';
    }
};

struct Flat : StoreAndFile<Properties>
{};

struct FlatFile : Flat
{
    FlatFile()
    {
        file.str("number = 7\na name that needs memory of its own = "
                 "\"a text that needs memory of its own\"\nsecond = 8\n");
    }
};

struct BadFlatFile : Flat
{
    BadFlatFile() { file.str("number = 7\nno sign at all\nsecond = 8\n"); }
};

struct DuplicateInFile : Flat
{
    DuplicateInFile() { file.str("number = 7\nfirst = 8\nsecond = 8\n"); }
};

struct Sectioned : StoreAndFile<PropertiesEx>
{
    std::string GetState()
    {
        std::string state = StoreAndFile::GetState() + ", sections";
        for (int i = 0; const PropertiesSection* section = store.GetSection("Board", i); ++i) {
            auto* found = const_cast<PropertiesSection*>(section);
            const char* argument = found->GetArg(0);
            state += std::string(" ") + (argument != nullptr ? argument : "-");
            state += found->GetUIntProperty("Irq") != nullptr ? " with Irq" : " empty";
        }
        return state;
    }
};

struct SectionedFile : Sectioned
{
    SectionedFile() { file.str("number = 7\n<Board 0>\nIrq = 3\n</Board>\nsecond = 8\n"); }
};

struct BadSectionedFile : Sectioned
{
    BadSectionedFile() { file.str("number = 7\n</Board>\nsecond = 8\n"); }
};

/// A tag that ends right after its bracket.
struct EndlessTag : Sectioned
{
    EndlessTag() { file.str("number = 7\n<\nsecond = 8\n"); }
};

struct TwoTexts
{
    std::string text = "  \ta text that needs memory of its own  ";
    char buffer[64] = "";

    std::string GetState() const { return '"' + text + "\" \"" + buffer + '"'; }
};

Effect ThrowsAt(const char* file, unsigned int line)
{
    return Throws<PropertiesException>({0x2FFF, "PropertiesException", file, line});
}

/// What the output of an exception's line may suffer; the exception comes out all the same.
std::vector<Row> LogRows(const Effect& usual)
{
    return {{"puts", Row::each, EIO, Unlogged(usual).ThenNoMore()},
            {"fflush", Row::each, EIO, Ignored()}};
}

template <typename Fixture>
Told Load(Fixture& f)
{
    f.store.Load(f.file);
    return "loaded";
}

template <typename Fixture>
Told LoadSections(Fixture& f)
{
    f.store.Load(f.file, true);
    return "loaded";
}

/// Memory may run out at any line; the entries before it stay, none is half made. What has been
/// read is gone from the file.
std::vector<MemoryRow> StopsAt(std::vector<std::string> states)
{
    return {{Row::each, OutOfMemory().LeavesOneOf(std::move(states)).ThenNoMore()}};
}

} // namespace

std::vector<Operation> ReaderOperations()
{
    constexpr unsigned int each = Row::each;
    const std::string untouched = "1 - - - error \"\"";
    const std::string oneMore = "1 7 - - error \"\"";
    const Effect duplicate =
        ThrowsAt("Properties", 284).Leaves("1 - - - error \"Property multiply defined\"");
    const Effect badLine =
        ThrowsAt("Properties", 161)
            .Leaves("1 7 - - error \"Invalid syntax (missing = sign) at line 2\"");
    const Effect duplicateLine =
        ThrowsAt("Properties", 284).Leaves("1 7 - - error \"Property multiply defined at line 2\"");
    const Effect badTag = ThrowsAt("src/unix/PropertiesEx", 90)
                              .Leaves("1 7 - - error \"End section tag outside of any section at "
                                      "line 2\", sections");

    return {
        {"Properties_AddProperty_Number", With<Flat>([](Flat& f) {
             return Told::Number(f.store.AddProperty(s_Name, 4711U)->GetValue());
         }),
         Tells("4711").Leaves("1 - - 4711 error \"\"")},

        {"Properties_AddProperty_Text", With<Flat>([](Flat& f) {
             return Told(f.store.AddProperty(s_Name, s_Text)->GetValue().c_str());
         }),
         Tells(s_Text).Leaves("1 - - \"a text that needs memory of its own\" error \"\"")},

        // The last error may have been set when there is no memory for the exception.
        {"Properties_AddProperty_Duplicate",
         With<Flat>([](Flat& f) {
             f.store.AddProperty("first", 2U);
             return Told("added");
         }),
         duplicate,
         LogRows(duplicate),
         {{1, OutOfMemory()},
          {each, OutOfMemory().Leaves("1 - - - error \"Property multiply defined\"")}}},

        {"Properties_GetProperty", With<Flat>([](Flat& f) {
             return Told::Number(f.store.GetProperty("first", Property::AnyType) != nullptr);
         }),
         Tells("1")},

        {"Properties_Clear", With<Flat>([](Flat& f) {
             f.store.Clear();
             return Told("cleared");
         }),
         Tells("cleared").Leaves("- - - - error \"\"")},

        {"Properties_SetLastError", With<Flat>([](Flat& f) {
             f.store.SetLastError(s_Text, 12);
             return Told("set");
         }),
         Tells("set").Leaves("1 - - - error \"a text that needs memory of its own at line 12\"")},

        {"Properties_Load",
         With<FlatFile>(Load<FlatFile>),
         Tells("loaded").Leaves("1 7 8 \"a text that needs memory of its own\" error \"\""),
         {},
         StopsAt({untouched, oneMore, "1 7 - \"a text that needs memory of its own\" error \"\""})},

        {"Properties_Load_BadLine", With<BadFlatFile>(Load<BadFlatFile>), badLine, LogRows(badLine),
         StopsAt({untouched, oneMore, badLine.states.front()})},

        {"Properties_Load_Duplicate",
         With<DuplicateInFile>(Load<DuplicateInFile>),
         duplicateLine,
         LogRows(duplicateLine),
         // The line's number has to be added when the exception has been logged already.
         {{each,
           OutOfMemory()
               .LeavesOneOf({untouched, oneMore, "1 7 - - error \"Property multiply defined\"",
                             duplicateLine.states.front()})
               .OrPrints(duplicateLine.printed)
               .ThenNoMore()}}},

        {"PropertiesEx_Load",
         With<SectionedFile>(LoadSections<SectionedFile>),
         Tells("loaded").Leaves("1 7 8 - error \"\", sections 0 with Irq"),
         {},
         StopsAt({untouched + ", sections", oneMore + ", sections", oneMore + ", sections 0 empty",
                  oneMore + ", sections 0 with Irq"})},

        {"PropertiesEx_Load_BadTag", With<BadSectionedFile>(LoadSections<BadSectionedFile>), badTag,
         LogRows(badTag),
         StopsAt({untouched + ", sections", oneMore + ", sections", badTag.states.front()})},

        {"PropertiesEx_Load_EndlessTag",
         With<EndlessTag>([](EndlessTag& f) {
             try {
                 f.store.Load(f.file, true);
             } catch (const std::out_of_range&) {
                 return Told("std::out_of_range");
             }
             return Told("loaded");
         }),
         Tells("std::out_of_range").Leaves("1 7 - - error \"\", sections"),
         {},
         StopsAt({untouched + ", sections", oneMore + ", sections"})},

        {"PropertiesEx_AddSection", With<Sectioned>([](Sectioned& f) {
             f.store.AddSection("Board", "0 and an argument that needs memory");
             return Told("added");
         }),
         Tells("added").Leaves("1 - - - error \"\", sections 0 empty")},

        {"PropertiesEx_GetSection", With<Sectioned>([](Sectioned& f) {
             return Told::Number(f.store.GetSection("a type that needs memory", 0) != nullptr);
         }),
         Tells("0")},

        {"PropertiesEx_Clear", With<Sectioned>([](Sectioned& f) {
             f.store.Clear();
             return Told("cleared");
         }),
         Tells("cleared").Leaves("- - - - error \"\", sections")},

        {"PropertiesSection_Construct", With<Flat>([](Flat&) {
             PropertiesSection made("one and-an-argument-that-needs-memory");
             return Told(made.GetArg(1));
         }),
         Tells("and-an-argument-that-needs-memory")},

        {"Properties_GetUIntPropertyValue", With<Flat>([](Flat& f) {
             return Told::Number(VelaHost_Utility::GetUIntPropertyValue(f.store, s_Name, 9));
         }),
         Tells("9")},

        {"Properties_GetStringPropertyValue", With<Flat>([](Flat& f) {
             static const std::string s_Default("nothing");
             return Told(
                 VelaHost_Utility::GetStringPropertyValue(f.store, s_Name, s_Default).c_str());
         }),
         Tells("nothing")},

        {"StringHelpers_chop", With<TwoTexts>([](TwoTexts& f) {
             VelaHost_Utility::chop(f.text);
             return Told("done");
         }),
         Tells("done").Leaves("\"a text that needs memory of its own\" \"\"")},

        {"StringHelpers_strmaxcpy", With<TwoTexts>([](TwoTexts& f) {
             return Told(VelaHost_Utility::strmaxcpy(f.buffer, "copied", sizeof f.buffer));
         }),
         Tells("copied").Leaves("\"  \ta text that needs memory of its own  \" \"copied\"")},

        {"StringHelpers_strcpycnt", With<TwoTexts>([](TwoTexts& f) {
             return Told::Number(VelaHost_Utility::strcpycnt(f.buffer, "copied", sizeof f.buffer));
         }),
         Tells("0").Leaves("\"  \ta text that needs memory of its own  \" \"copied\"")},

        {"StringHelpers_strupr", With<TwoTexts>([](TwoTexts& f) {
             std::strcpy(f.buffer, "raised");
             return Told(VelaHost_Utility::strupr(f.buffer));
         }),
         Tells("RAISED").Leaves("\"  \ta text that needs memory of its own  \" \"RAISED\"")},
    };
}

} // namespace velahost_test
