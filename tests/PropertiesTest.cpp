#include <VelaHost_Utility/Properties.h>

#include "support/CapturedStdout.h"
#include "support/ThrownException.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;

constexpr unsigned int s_DuplicateStringLine = 270;
constexpr unsigned int s_DuplicateUIntLine = 284;

Failure StoreFailure(unsigned int line)
{
    return {0x2FFF, "PropertiesException", "Properties", line};
}

TEST(PropertyTypes, HaveFixedNumbers)
{
    EXPECT_EQ(Property::AnyType, 0);
    EXPECT_EQ(Property::UIntType, 1);
    EXPECT_EQ(Property::StringType, 2);
    EXPECT_EQ(sizeof(Property::Type), 4U);
}

TEST(PropertyTypes, AreKnownToTheirValues)
{
    EXPECT_EQ(Property(Property::AnyType).GetType(), Property::AnyType);
    EXPECT_EQ(UIntProperty(1).GetType(), Property::UIntType);
    EXPECT_EQ(StringProperty("x").GetType(), Property::StringType);
}

TEST(PropertyLayout, IsATypeAndAValue)
{
    EXPECT_FALSE(std::is_polymorphic_v<Property>);
    EXPECT_FALSE(std::is_polymorphic_v<StringProperty>);
    EXPECT_FALSE(std::has_virtual_destructor_v<Property>);
    EXPECT_EQ(sizeof(Property), 4U);
    EXPECT_EQ(sizeof(UIntProperty), 8U);
    const UIntProperty number(0x12345678);
    unsigned int words[2];
    std::memcpy(words, &number, sizeof words);
    EXPECT_EQ(words[0], 1U);
    EXPECT_EQ(words[1], 0x12345678U);

    const StringProperty text("x");
    const auto offset =
        reinterpret_cast<const char*>(&text.GetValue()) - reinterpret_cast<const char*>(&text);
    EXPECT_EQ(offset, static_cast<std::ptrdiff_t>(sizeof(void*)));
    EXPECT_EQ(sizeof(StringProperty), sizeof(void*) + sizeof(std::string));
}

TEST(UIntPropertyValue, CanBeSet)
{
    UIntProperty property(4294967295U);
    EXPECT_EQ(property.GetValue(), 4294967295U);
    property.SetValue(7);
    EXPECT_EQ(property.GetValue(), 7U);
}

TEST(StringPropertyValue, IsACopy)
{
    char text[] = "a text that is too long to be kept inside";
    StringProperty property(text);
    text[0] = 'X';
    EXPECT_EQ(property.GetValue(), "a text that is too long to be kept inside");
    property.SetValue(text);
    text[0] = 'Y';
    EXPECT_EQ(property.GetValue(), "X text that is too long to be kept inside");
    property.SetValue(property.GetValue().c_str() + 2);
    EXPECT_EQ(property.GetValue(), "text that is too long to be kept inside");
}

TEST(PropertiesLayout, IsTableThenLastError)
{
    const Properties store;
    const auto offset = reinterpret_cast<const char*>(&store.GetLastError()) -
                        reinterpret_cast<const char*>(&store);
    using Table = std::map<std::string, Property*, std::less<>>;
    EXPECT_EQ(offset, static_cast<std::ptrdiff_t>(sizeof(void*) + sizeof(Table)));
    EXPECT_EQ(sizeof store, sizeof(void*) + sizeof(Table) + sizeof(std::string));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(offset, 28);
        EXPECT_EQ(sizeof store, 52U);
    }
}

TEST(PropertiesLayout, HasOneOwnerOfItsEntries)
{
    EXPECT_FALSE(std::is_copy_constructible_v<Properties>);
    EXPECT_FALSE(std::is_copy_assignable_v<Properties>);
    EXPECT_FALSE(std::is_move_constructible_v<Properties>);
    // An entry is released by its type.
    EXPECT_FALSE(std::is_copy_assignable_v<UIntProperty>);
    EXPECT_FALSE(std::is_copy_assignable_v<StringProperty>);
}

TEST(PropertiesExceptionClass, AddsNothingToItsBase)
{
    EXPECT_EQ(sizeof(PropertiesException), sizeof(Exception));
    EXPECT_TRUE((std::is_base_of_v<Exception, PropertiesException>));
}

TEST(PropertiesExceptionClass, LogsItselfOnce)
{
    constexpr Exception::Context site(nullptr, "src/Somewhere", 17, DefaultExceptionLogger);
    CapturedStdout output;
    const PropertiesException e(site);
    EXPECT_EQ(output.Stop(), "PropertiesException at src/Somewhere:17\n");
    EXPECT_EQ(Describe(e), (Failure{0x2FFF, "PropertiesException", "src/Somewhere", 17}));
}

TEST(PropertiesStore, IsEmptyAtFirst)
{
    Properties store;
    EXPECT_EQ(store.GetProperty("", Property::AnyType), nullptr);
    EXPECT_EQ(store.GetLastError(), "");
}

TEST(PropertiesStore, ReturnsWhatItAdded)
{
    Properties store;
    UIntProperty* number = store.AddProperty("N", 5U);
    StringProperty* text = store.AddProperty("T", "five");
    EXPECT_EQ(number->GetValue(), 5U);
    EXPECT_EQ(text->GetValue(), "five");
    EXPECT_EQ(store.GetUIntProperty("N"), number);
    EXPECT_EQ(store.GetStringProperty("T"), text);
    number->SetValue(6);
    EXPECT_EQ(GetUIntPropertyValue(store, "N", 0), 6U);
}

TEST(PropertiesStore, FiltersByType)
{
    Properties store;
    Property* const number = store.AddProperty("N", 5U);
    Property* const text = store.AddProperty("T", "five");
    EXPECT_EQ(store.GetProperty("N", Property::AnyType), number);
    EXPECT_EQ(store.GetProperty("N", Property::UIntType), number);
    EXPECT_EQ(store.GetProperty("N", Property::StringType), nullptr);
    EXPECT_EQ(store.GetProperty("T", Property::AnyType), text);
    EXPECT_EQ(store.GetProperty("T", Property::StringType), text);
    EXPECT_EQ(store.GetProperty("T", Property::UIntType), nullptr);
    EXPECT_EQ(store.GetUIntProperty("T"), nullptr);
    EXPECT_EQ(store.GetStringProperty("N"), nullptr);
    EXPECT_EQ(store.GetProperty("n", Property::AnyType), nullptr);
    EXPECT_EQ(store.GetProperty("", Property::AnyType), nullptr);
}

TEST(PropertiesStore, KeepsNamesAsTheyAre)
{
    Properties store;
    store.AddProperty("", 1U);
    store.AddProperty(" ", 2U);
    store.AddProperty(" a = \"b\"\n", 3U);
    store.AddProperty("\xff", 4U);
    store.AddProperty("A", 5U);
    store.AddProperty("a", 6U);
    EXPECT_EQ(GetUIntPropertyValue(store, "", 0), 1U);
    EXPECT_EQ(GetUIntPropertyValue(store, " ", 0), 2U);
    EXPECT_EQ(GetUIntPropertyValue(store, " a = \"b\"\n", 0), 3U);
    EXPECT_EQ(GetUIntPropertyValue(store, "\xff", 0), 4U);
    EXPECT_EQ(GetUIntPropertyValue(store, "A", 0), 5U);
    EXPECT_EQ(GetUIntPropertyValue(store, "a", 0), 6U);
}

TEST(PropertiesStore, FindsEachOfMany)
{
    Properties store;
    for (unsigned int i = 0; i < 5000; ++i) {
        store.AddProperty(std::to_string(i * 7919 % 5000).c_str(), i);
    }
    for (unsigned int i = 0; i < 5000; ++i) {
        ASSERT_EQ(GetUIntPropertyValue(store, std::to_string(i * 7919 % 5000).c_str(), 5000), i);
    }
}

/// Each differs from others in its length, or in one byte, whatever that byte and its position.
std::vector<std::string> AlikeNames()
{
    std::vector<std::string> names;
    for (std::size_t length = 0; length <= 13; ++length) {
        const std::string name(length, 'm');
        names.push_back(name);
        for (std::size_t i = 0; i < length; ++i) {
            for (const char byte : {'\x01', 'l', 'n', '\x7f', '\x80', '\xff'}) {
                names.push_back(name);
                names.back()[i] = byte;
            }
        }
    }
    std::shuffle(names.begin(), names.end(), std::mt19937(20240229));
    return names;
}

TEST(PropertiesStore, TellsAlikeNamesApart)
{
    const std::vector<std::string> names = AlikeNames();
    Properties store;
    for (unsigned int i = 0; i < names.size(); ++i) {
        ASSERT_EQ(store.GetProperty(names[i].c_str(), Property::AnyType), nullptr)
            << testing::PrintToString(names[i]);
        store.AddProperty(names[i].c_str(), i);
    }
    for (unsigned int i = 0; i < names.size(); ++i) {
        ASSERT_EQ(GetUIntPropertyValue(store, names[i].c_str(), ~0U), i)
            << testing::PrintToString(names[i]);
    }
    CapturedStdout output;
    for (const std::string& name : names) {
        EXPECT_THROW(store.AddProperty(name.c_str(), 0U), PropertiesException)
            << testing::PrintToString(name);
    }
}

TEST(PropertiesStore, RejectsASecondAdditionOfEitherType)
{
    Properties store;
    store.AddProperty("N", 5U);
    store.AddProperty("T", "five");
    const auto expectRejected = [&](auto value, const char* name, unsigned int line) {
        SCOPED_TRACE(name);
        store.SetLastError("old", 1);
        CapturedStdout output;
        const auto result = Throws<PropertiesException>([&] { store.AddProperty(name, value); },
                                                        StoreFailure(line));
        const std::string log = output.Stop();
        EXPECT_TRUE(result);
        EXPECT_EQ(log, StoreFailure(line).LogLine());
        EXPECT_EQ(store.GetLastError(), "Property multiply defined");
    };
    expectRejected(1U, "N", s_DuplicateUIntLine);
    expectRejected(1U, "T", s_DuplicateUIntLine);
    expectRejected("x", "N", s_DuplicateStringLine);
    expectRejected("x", "T", s_DuplicateStringLine);
    EXPECT_EQ(GetUIntPropertyValue(store, "N", 0), 5U);
    EXPECT_EQ(GetStringPropertyValue(store, "T", ""), "five");
}

TEST(PropertiesStore, LeavesTheLastErrorOnSuccessfulAdditions)
{
    Properties store;
    store.SetLastError("old", -1);
    store.AddProperty("N", 5U);
    EXPECT_EQ(store.GetLastError(), "old");
}

TEST(PropertiesClear, EmptiesTheTableAndKeepsTheLastError)
{
    Properties store;
    store.AddProperty("N", 5U);
    store.AddProperty("T", "a text that is too long to be kept inside");
    store.SetLastError("kept", 3);
    store.Clear();
    EXPECT_EQ(store.GetProperty("N", Property::AnyType), nullptr);
    EXPECT_EQ(store.GetProperty("T", Property::AnyType), nullptr);
    EXPECT_EQ(store.GetLastError(), "kept at line 3");
    EXPECT_EQ(store.AddProperty("N", "again")->GetValue(), "again");
    store.Clear();
    store.Clear();
}

TEST(PropertiesSetLastError, ReplacesWithAText)
{
    Properties store;
    store.SetLastError("first", -1);
    EXPECT_EQ(store.GetLastError(), "first");
    store.SetLastError("second", 0);
    EXPECT_EQ(store.GetLastError(), "second at line 0");
    store.SetLastError("third", 2147483647);
    EXPECT_EQ(store.GetLastError(), "third at line 2147483647");
    store.SetLastError("", 4);
    EXPECT_EQ(store.GetLastError(), " at line 4");
    store.SetLastError("", -1);
    EXPECT_EQ(store.GetLastError(), "");
}

TEST(PropertiesSetLastError, EmptiesWithoutTextAndLine)
{
    Properties store;
    for (const int line : {-1, -2147483647 - 1}) {
        store.SetLastError("x", -1);
        store.SetLastError(nullptr, line);
        EXPECT_EQ(store.GetLastError(), "");
    }
}

TEST(PropertiesSetLastError, AppendsALineWithoutText)
{
    Properties store;
    store.SetLastError(nullptr, 0);
    EXPECT_EQ(store.GetLastError(), " at line 0");
    store.SetLastError(nullptr, 12);
    EXPECT_EQ(store.GetLastError(), " at line 0 at line 12");
}

TEST(PropertiesSetLastError, MayBeGivenTheLastErrorItself)
{
    Properties store;
    store.SetLastError("a message that is too long to be kept inside", -1);
    store.SetLastError(store.GetLastError().c_str() + 2, 5);
    EXPECT_EQ(store.GetLastError(), "message that is too long to be kept inside at line 5");
}

TEST(PropertyValues, FallBackOnTheDefault)
{
    Properties store;
    store.AddProperty("N", 5U);
    store.AddProperty("T", "five");
    EXPECT_EQ(GetUIntPropertyValue(store, "N", 9), 5U);
    EXPECT_EQ(GetUIntPropertyValue(store, "T", 9), 9U);
    EXPECT_EQ(GetUIntPropertyValue(store, "none", 9), 9U);

    const std::string fallback = "fallback";
    EXPECT_EQ(&GetStringPropertyValue(store, "T", fallback),
              &store.GetStringProperty("T")->GetValue());
    EXPECT_EQ(&GetStringPropertyValue(store, "N", fallback), &fallback);
    EXPECT_EQ(&GetStringPropertyValue(store, "none", fallback), &fallback);
}

TEST(PropertiesLoad, TakesATagForAPropertyLine)
{
    Properties store;
    std::istringstream in("<Board a=1>\n");
    store.Load(in);
    EXPECT_EQ(GetUIntPropertyValue(store, "<Board a", 0), 1U);
}

} // namespace
