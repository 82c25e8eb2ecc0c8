#include <VelaHost_Utility/PropertiesEx.h>

#include "support/CapturedStdout.h"
#include "support/ThrownException.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;
using namespace std::string_literals;

constexpr unsigned int s_NulLine = 81;
constexpr unsigned int s_NoSectionLine = 90;
constexpr unsigned int s_WrongEndLine = 95;
constexpr unsigned int s_NestedLine = 104;
constexpr unsigned int s_MissingBracketLine = 113;
constexpr unsigned int s_MissingSignLine = 129;
constexpr unsigned int s_BadNumberLine = 188;

void Load(PropertiesEx& store, const std::string& text, bool sectionsAllowed = true)
{
    std::istringstream in(text);
    store.Load(in, sectionsAllowed);
}

/// Proves that loading `text` fails as told, logs that once, and leaves `lastError`.
void ExpectFailure(PropertiesEx& store, const std::string& text, const std::string& lastError,
                   unsigned int throwLine, const std::string& throwFile = "src/unix/PropertiesEx",
                   bool sectionsAllowed = true)
{
    SCOPED_TRACE(text);
    const Failure expected{0x2FFF, "PropertiesException", throwFile, throwLine};
    CapturedStdout output;
    const auto result =
        Throws<PropertiesException>([&] { Load(store, text, sectionsAllowed); }, expected);
    const std::string log = output.Stop();
    EXPECT_TRUE(result);
    EXPECT_EQ(log, expected.LogLine());
    EXPECT_EQ(store.GetLastError(), lastError);
}

using Arguments = std::vector<std::string>;

/// All arguments of a section, which must exist.
Arguments GetArguments(PropertiesSection* section)
{
    Arguments arguments;
    if (section == nullptr) {
        ADD_FAILURE() << "no section";
        return arguments;
    }
    for (int i = 0; section->GetArg(i) != nullptr; ++i) {
        arguments.emplace_back(section->GetArg(i));
    }
    return arguments;
}

unsigned int GetNumber(Properties* table, const char* name)
{
    const UIntProperty* property = table->GetUIntProperty(name);
    if (property == nullptr) {
        ADD_FAILURE() << "no number " << name;
        return 0;
    }
    return property->GetValue();
}

TEST(PropertiesExLayout, AddsSectionsToItsBase)
{
    using Sections = std::map<std::string, std::vector<PropertiesSection*>, std::less<>>;
    EXPECT_EQ(sizeof(PropertiesEx), sizeof(Properties) + sizeof(Sections));
    EXPECT_EQ(sizeof(PropertiesSection), sizeof(PropertiesEx) + sizeof(Arguments));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(PropertiesEx), 76U);
        EXPECT_EQ(sizeof(PropertiesSection), 88U);
    }
}

TEST(PropertiesExLayout, DerivesInOneLine)
{
    EXPECT_TRUE((std::is_base_of_v<Properties, PropertiesEx>));
    EXPECT_TRUE((std::is_base_of_v<PropertiesEx, PropertiesSection>));
    EXPECT_FALSE(std::is_copy_constructible_v<PropertiesEx>);
    EXPECT_FALSE(std::is_copy_constructible_v<PropertiesSection>);
    EXPECT_FALSE(std::is_copy_assignable_v<PropertiesSection>);
}

constexpr const char* s_Sample = "#sectioned sample\n"
                                 "Version = 3\n"
                                 "<Board 0 primary>\n"
                                 "Irq = 0x0A\n"
                                 "Label = \"left slot\"\n"
                                 "</Board>\n"
                                 "<Board 1>\n"
                                 "Irq = 11\n"
                                 "</Board>\n"
                                 "<Trace>\n"
                                 "Level = 2\n"
                                 "</Trace>\n";

TEST(SectionedLoad, ReadsTheSample)
{
    PropertiesEx store;
    Load(store, s_Sample);
    EXPECT_EQ(GetNumber(&store, "Version"), 3U);
    EXPECT_EQ(store.GetProperty("Irq", Property::AnyType), nullptr);

    PropertiesSection* const first = store.GetSection("Board", 0);
    EXPECT_EQ(GetArguments(first), (Arguments{"0", "primary"}));
    EXPECT_EQ(first->GetArg(2), nullptr);
    EXPECT_EQ(GetNumber(first, "Irq"), 10U);
    EXPECT_EQ(GetStringPropertyValue(*first, "Label", ""), "left slot");

    PropertiesSection* const second = store.GetSection("Board", 1);
    EXPECT_EQ(GetArguments(second), Arguments{"1"});
    EXPECT_EQ(GetNumber(second, "Irq"), 11U);
    EXPECT_EQ(store.GetSection("Board", 2), nullptr);

    PropertiesSection* const trace = store.GetSection("Trace", 0);
    EXPECT_EQ(GetArguments(trace), Arguments{});
    EXPECT_EQ(GetNumber(trace, "Level"), 2U);
    EXPECT_EQ(store.GetSection("Trace", 1), nullptr);
    EXPECT_EQ(store.GetLastError(), "");
}

TEST(SectionedLoad, RejectsAnotherEndTag)
{
    PropertiesEx store;
    std::string text = s_Sample;
    text.replace(text.find("</Board>"), 8, "</Trace>");
    ExpectFailure(store, text, "End section tag does not match open section type at line 6",
                  s_WrongEndLine);
    EXPECT_EQ(GetNumber(store.GetSection("Board", 0), "Irq"), 10U);
}

TEST(SectionedLoad, RejectsASectionWithinAnother)
{
    PropertiesEx store;
    std::string text = s_Sample;
    text.erase(text.find("</Board>\n"), 9);
    ExpectFailure(store, text, "Section not allowed within another section at line 6",
                  s_NestedLine);
    EXPECT_EQ(store.GetSection("Board", 1), nullptr);
    ExpectFailure(store, "<A>\n<A\n", "Section not allowed within another section at line 2",
                  s_NestedLine);
}

TEST(SectionedLoad, RejectsAnEndTagOutsideOfAnySection)
{
    const std::string error = "End section tag outside of any section at line ";
    PropertiesEx store;
    ExpectFailure(store, "</Board>\n", error + "1", s_NoSectionLine);
    ExpectFailure(store, "</\n", error + "1", s_NoSectionLine);
    ExpectFailure(store, "</ >\n", error + "1", s_NoSectionLine);
    ExpectFailure(store, "<A>\n</A>\n \t</A>\n", error + "3", s_NoSectionLine);
}

TEST(SectionedLoad, OpensNoSectionBeforeTheLoad)
{
    PropertiesEx store;
    Load(store, "<A>\nX = 1\n");
    ExpectFailure(store, "</A>\n", "End section tag outside of any section at line 1",
                  s_NoSectionLine);
    Load(store, "X = 2\n");
    EXPECT_EQ(GetNumber(&store, "X"), 2U);
}

TEST(SectionedLoad, ComparesTypesByteByByte)
{
    const std::string error = "End section tag does not match open section type at line 2";
    PropertiesEx store;
    for (const char* end : {"</board>", "</Boar>", "</Boards>", "</ Board>", "</>", "</",
                            "</Board<", "</Board\r", "</B\xf6"}) {
        ExpectFailure(store, "<Board>\n"s + end + "\n", error, s_WrongEndLine);
    }
    ExpectFailure(store, "<Board>\r\n</Board>x\n</Board\r\n",
                  "End section tag outside of any section at line 3", s_NoSectionLine);
}

TEST(SectionedLoad, ClosesWhateverFollowsTheType)
{
    for (const char* end : {"</Board>", "</Board", "</Board >", "</Board x", "</Board>x = 1",
                            "</Board\t# x", " \t</Board>"}) {
        SCOPED_TRACE(end);
        PropertiesEx store;
        Load(store, "<Board>\nX = 1\n"s + end + "\nX = 2\n");
        EXPECT_EQ(GetNumber(store.GetSection("Board", 0), "X"), 1U);
        EXPECT_EQ(GetNumber(&store, "X"), 2U);
    }
}

TEST(SectionedLoad, OpensWithOrWithoutArguments)
{
    struct Case
    {
        const char* tag;
        Arguments arguments;
    };
    for (const Case& tag : {
             Case{"<Board>", {}},
             Case{"<Board", {}},
             Case{" \t <Board>", {}},
             Case{"<Board >", {}},
             Case{"<Board> x y", {}},
             Case{"<Board>># = \"", {}},
             Case{"<Board 1>", {"1"}},
             Case{"<Board\t1\t2 >", {"1", "2"}},
             Case{"<Board  1 \t 2>3", {"1", "2"}},
             Case{"<Board 1>2>", {"1"}},
             Case{"<Board \"left slot\">", {"\"left", "slot\""}},
             Case{"<Board <1>", {"<1"}},
             Case{"<Board a=1 # b>", {"a=1", "#", "b"}},
             Case{"<Board 1\r>\r", {"1\r"}},
         }) {
        SCOPED_TRACE(tag.tag);
        PropertiesEx store;
        Load(store, tag.tag + "\nX = 1\n</Board>\n"s);
        EXPECT_EQ(GetArguments(store.GetSection("Board", 0)), tag.arguments);
        EXPECT_EQ(GetNumber(store.GetSection("Board", 0), "X"), 1U);
    }
}

TEST(SectionedLoad, RequiresABracketBehindArguments)
{
    const std::string error = "Invalid syntax (missing closing > sign) at line 2";
    for (const char* tag : {"<Board 1", "<Board ", "<Board\t", "< Board", "< "}) {
        PropertiesEx store;
        ExpectFailure(store, "X = 1\n"s + tag + "\n", error, s_MissingBracketLine);
        EXPECT_EQ(store.GetSection("Board", 0), nullptr);
        EXPECT_EQ(store.GetSection("", 0), nullptr);
        EXPECT_EQ(GetNumber(&store, "X"), 1U);
    }
}

TEST(SectionedLoad, TakesABlankBehindTheOpeningBracketForAnEmptyType)
{
    PropertiesEx store;
    Load(store, "< Board>\nX = 1\n</ Board>\n<>\n</>\n<\t>\n</\n");
    EXPECT_EQ(GetArguments(store.GetSection("", 0)), Arguments{"Board"});
    EXPECT_EQ(GetNumber(store.GetSection("", 0), "X"), 1U);
    EXPECT_EQ(GetArguments(store.GetSection("", 1)), Arguments{});
    EXPECT_EQ(GetArguments(store.GetSection("", 2)), Arguments{});
    EXPECT_EQ(store.GetSection("", 3), nullptr);
    EXPECT_EQ(store.GetSection("Board", 0), nullptr);
    ExpectFailure(store, "<Board>\n</ Board>\n",
                  "End section tag does not match open section type at line 2", s_WrongEndLine);
}

TEST(SectionedLoad, PassesOnTheOutOfRangeOfATagThatEndsAtOnce)
{
    for (const char* line : {"<", " \t<", "<\nX = 2\n"}) {
        SCOPED_TRACE(line);
        PropertiesEx store;
        store.SetLastError("old", -1);
        CapturedStdout output;
        std::string what;
        try {
            Load(store, "X = 1\n"s + line);
        } catch (const std::out_of_range& e) {
            what = e.what();
        }
        EXPECT_EQ(output.Stop(), "");
        EXPECT_EQ(what.substr(0, 16), "basic_string::at");
        EXPECT_EQ(store.GetLastError(), "old");
        EXPECT_EQ(GetNumber(&store, "X"), 1U);
    }
}

TEST(SectionedLoad, AcceptsASectionOpenAtTheEnd)
{
    for (const char* text : {"<A 1>\nX = 1\n", "<A 1>\nX = 1"}) {
        PropertiesEx store;
        store.SetLastError("old", -1);
        Load(store, text);
        EXPECT_EQ(GetNumber(store.GetSection("A", 0), "X"), 1U);
        EXPECT_EQ(store.GetLastError(), "");
    }
}

TEST(SectionedLoad, RefusesNulInTags)
{
    PropertiesEx store;
    const std::string error = "Invalid syntax (NUL character) at line 1";
    ExpectFailure(store, "<A\0>\n"s, error, s_NulLine);
    ExpectFailure(store, "<A x>\0\n"s, error, s_NulLine);
    ExpectFailure(store, "<\0"s, error, s_NulLine);
    EXPECT_EQ(store.GetSection("A", 0), nullptr);
    ExpectFailure(store, "<A>\n</A>\0\n"s, "Invalid syntax (NUL character) at line 2", s_NulLine);
}

TEST(SectionedLoad, FailsInsideASectionAsOutside)
{
    PropertiesEx store;
    ExpectFailure(store, "<A>\nX = 1\nX\n", "Invalid syntax (missing '=' sign) at line 3",
                  s_MissingSignLine);
    EXPECT_EQ(GetNumber(store.GetSection("A", 0), "X"), 1U);
    EXPECT_EQ(store.GetSection("A", 0)->GetLastError(), "");
    ExpectFailure(store, "<A>\nY = z\n", "Invalid UInt value at line 2", s_BadNumberLine);
}

TEST(SectionedLoad, SplitsTheLastErrorOfADuplicateInASection)
{
    PropertiesEx store;
    const std::string text = "<A>\nX = 1\nX = \"2\"\n";
    ExpectFailure(store, text, " at line 3", 270, "Properties");
    EXPECT_EQ(store.GetSection("A", 0)->GetLastError(), "Property multiply defined");
    EXPECT_EQ(GetNumber(store.GetSection("A", 0), "X"), 1U);

    store.SetLastError("old", -1);
    ExpectFailure(store, "\n<A>\nX = 1\nX = 2\n", "old at line 4", 284, "Properties");
    EXPECT_EQ(store.GetSection("A", 1)->GetLastError(), "Property multiply defined");
}

TEST(SectionedLoad, KeepsTheLastErrorOfATopLevelDuplicateTogether)
{
    PropertiesEx store;
    store.SetLastError("old", -1);
    ExpectFailure(store, "X = 1\n<A>\nX = 1\n</A>\nX = 2\n", "Property multiply defined at line 5",
                  284, "Properties");
    EXPECT_EQ(store.GetSection("A", 0)->GetLastError(), "");
}

TEST(SectionedLoad, KeepsOneTableForEachSection)
{
    PropertiesEx store;
    Load(store, "X = 1\n<A>\nX = 2\n</A>\n<A>\nX = 3\n</A>\n<B>\nX = \"4\"\n</B>\nY = 5\n");
    EXPECT_EQ(GetNumber(&store, "X"), 1U);
    EXPECT_EQ(GetNumber(store.GetSection("A", 0), "X"), 2U);
    EXPECT_EQ(GetNumber(store.GetSection("A", 1), "X"), 3U);
    EXPECT_EQ(GetStringPropertyValue(*store.GetSection("B", 0), "X", ""), "4");
    EXPECT_EQ(GetNumber(&store, "Y"), 5U);
}

TEST(SectionedLoad, AddsSectionsToThoseHeld)
{
    PropertiesEx store;
    PropertiesSection* const own = store.AddSection("A", "own");
    Load(store, "<A first>\n</A>\n");
    Load(store, "<A second>\n</A>\n");
    EXPECT_EQ(store.GetSection("A", 0), own);
    EXPECT_EQ(GetArguments(store.GetSection("A", 1)), Arguments{"first"});
    EXPECT_EQ(GetArguments(store.GetSection("A", 2)), Arguments{"second"});
}

TEST(SectionedLoad, TakesTagsForPropertyLinesWhenSectionsAreNotAllowed)
{
    PropertiesEx store;
    ExpectFailure(store, "X = 1\n<Board>\n", "Invalid syntax (missing '=' sign) at line 2",
                  s_MissingSignLine, "src/unix/PropertiesEx", false);
    ExpectFailure(store, "<", "Invalid syntax (missing '=' sign) at line 1", s_MissingSignLine,
                  "src/unix/PropertiesEx", false);
    Load(store, "<Board a = 2 >\n</B = 3\n", false);
    EXPECT_EQ(GetNumber(&store, "<Board a"), 2U);
    EXPECT_EQ(GetNumber(&store, "</B"), 3U);
    EXPECT_EQ(store.GetSection("Board", 0), nullptr);
}

TEST(SectionedLoad, TakesABracketLaterInALineForAnythingElse)
{
    PropertiesEx store;
    Load(store, "x<y> = 1\n#<A>\nT = \"<A>\"\n");
    EXPECT_EQ(GetNumber(&store, "x<y>"), 1U);
    EXPECT_EQ(GetStringPropertyValue(store, "T", ""), "<A>");
    EXPECT_EQ(store.GetSection("A", 0), nullptr);
}

TEST(SectionedLoad, ReadsLongTags)
{
    PropertiesEx store;
    const std::string type(3000, 'T');
    const std::string argument(100'000, 'a');
    Load(store, "<" + type + " " + argument + " b>\nX = 1\n</" + type + ">\nX = 2\n");
    EXPECT_EQ(GetArguments(store.GetSection(type.c_str(), 0)), (Arguments{argument, "b"}));
    EXPECT_EQ(GetNumber(&store, "X"), 2U);
}

TEST(Sections, AreFoundByTypeAndIndex)
{
    PropertiesEx store;
    EXPECT_EQ(store.GetSection("A", 0), nullptr);
    PropertiesSection* const first = store.AddSection("A", "x");
    PropertiesSection* const second = store.AddSection("A", "x");
    PropertiesSection* const other = store.AddSection("a", "");
    EXPECT_NE(first, second);
    EXPECT_EQ(store.GetSection("A", 0), first);
    EXPECT_EQ(store.GetSection("A", 1), second);
    EXPECT_EQ(store.GetSection("A", 2), nullptr);
    EXPECT_EQ(store.GetSection("a", 0), other);
    EXPECT_EQ(store.GetSection("a", 1), nullptr);
    EXPECT_EQ(store.GetSection("", 0), nullptr);
}

TEST(Sections, AreNoneAtANegativeIndex)
{
    PropertiesEx store;
    PropertiesSection* const section = store.AddSection("A", "x");
    for (const int index : {-1, -2147483647 - 1}) {
        EXPECT_EQ(store.GetSection("A", index), nullptr);
        EXPECT_EQ(section->GetArg(index), nullptr);
    }
    EXPECT_EQ(store.GetSection("A", 2147483647), nullptr);
    EXPECT_EQ(section->GetArg(2147483647), nullptr);
}

TEST(Sections, AreStoresOfTheirOwn)
{
    PropertiesEx store;
    PropertiesSection* const section = store.AddSection("A", "");
    section->AddProperty("X", 1U);
    EXPECT_EQ(store.GetProperty("X", Property::AnyType), nullptr);
    EXPECT_EQ(section->GetLastError(), "");
    EXPECT_EQ(section->GetSection("A", 0), nullptr);
}

TEST(Sections, SplitTheirArgumentsAtBlanks)
{
    const auto split = [](const char* text) {
        PropertiesSection section(text);
        return GetArguments(&section);
    };
    EXPECT_EQ(split(""), Arguments{});
    EXPECT_EQ(split(" \t "), Arguments{});
    EXPECT_EQ(split("a"), Arguments{"a"});
    EXPECT_EQ(split("  a\tb \t c  "), (Arguments{"a", "b", "c"}));
    EXPECT_EQ(split("\"a b\""), (Arguments{"\"a", "b\""}));
    EXPECT_EQ(split("a\nb\r \v"), (Arguments{"a\nb\r", "\v"}));
    EXPECT_EQ(split(">"), Arguments{">"});
}

TEST(PropertiesExClear, EmptiesEverythingButTheLastError)
{
    PropertiesEx store;
    Load(store, s_Sample);
    store.SetLastError("kept", -1);
    store.Clear();
    EXPECT_EQ(store.GetProperty("Version", Property::AnyType), nullptr);
    EXPECT_EQ(store.GetSection("Board", 0), nullptr);
    EXPECT_EQ(store.GetSection("Trace", 0), nullptr);
    EXPECT_EQ(store.GetLastError(), "kept");
    Load(store, s_Sample);
    EXPECT_EQ(GetNumber(store.GetSection("Board", 1), "Irq"), 11U);
}

TEST(PropertiesExClear, OfTheBaseLeavesTheSections)
{
    PropertiesEx store;
    Load(store, s_Sample);
    store.Properties::Clear();
    EXPECT_EQ(store.GetProperty("Version", Property::AnyType), nullptr);
    EXPECT_EQ(GetNumber(store.GetSection("Board", 1), "Irq"), 11U);
}

} // namespace
