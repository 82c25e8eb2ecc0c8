#include "support/CapturedStdout.h"
#include "support/TemporaryDirectory.h"
#include "support/ThrownException.h"

#include <VelaHost_Utility/Properties.h>
#include <VelaHost_Utility/PropertiesEx.h>

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <locale>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;
using namespace std::string_literals;

/// What the readers do alike, proved on each of them.
struct FlatReader
{
    using Store = Properties;
    static void Load(Store& store, std::istream& in) { store.Load(in); }

    static constexpr const char* file = "Properties";
    static constexpr const char* missingSign = "Invalid syntax (missing = sign)";
    static constexpr unsigned int unreadableLine = 155;
    static constexpr unsigned int nulLine = 156;
    static constexpr unsigned int missingSignLine = 161;
    static constexpr unsigned int missingQuoteLine = 176;
    static constexpr unsigned int afterQuoteLine = 182;
    static constexpr unsigned int badNumberLine = 214;
};

struct SectionedReader
{
    using Store = PropertiesEx;
    static void Load(Store& store, std::istream& in) { store.Load(in, true); }

    static constexpr const char* file = "src/unix/PropertiesEx";
    static constexpr const char* missingSign = "Invalid syntax (missing '=' sign)";
    static constexpr unsigned int unreadableLine = 80;
    static constexpr unsigned int nulLine = 81;
    static constexpr unsigned int missingSignLine = 129;
    static constexpr unsigned int missingQuoteLine = 144;
    static constexpr unsigned int afterQuoteLine = 150;
    static constexpr unsigned int badNumberLine = 188;
};

struct SectionlessReader : SectionedReader
{
    static void Load(Store& store, std::istream& in) { store.Load(in, false); }
};

template <typename Reader>
class PropertyLines : public testing::Test
{
protected:
    void Load(const std::string& text)
    {
        std::istringstream in(text);
        Reader::Load(m_Store, in);
    }

    /// Proves that loading `in` fails as told, logs that once, and leaves `lastError`.
    void ExpectFailure(std::istream& in, const std::string& lastError, unsigned int throwLine,
                       const std::string& throwFile = Reader::file)
    {
        const Failure expected{0x2FFF, "PropertiesException", throwFile, throwLine};
        CapturedStdout output;
        const auto result =
            Throws<PropertiesException>([&] { Reader::Load(m_Store, in); }, expected);
        const std::string log = output.Stop();
        EXPECT_TRUE(result);
        EXPECT_EQ(log, expected.LogLine());
        EXPECT_EQ(m_Store.GetLastError(), lastError);
    }

    void ExpectFailure(const std::string& text, const std::string& lastError,
                       unsigned int throwLine, const std::string& throwFile = Reader::file)
    {
        SCOPED_TRACE(text.substr(0, 80));
        std::istringstream in(text);
        ExpectFailure(in, lastError, throwLine, throwFile);
    }

    std::optional<unsigned int> GetNumber(const std::string& name)
    {
        const UIntProperty* property = m_Store.GetUIntProperty(name.c_str());
        return property != nullptr ? std::optional(property->GetValue()) : std::nullopt;
    }

    std::optional<std::string> GetString(const std::string& name)
    {
        const StringProperty* property = m_Store.GetStringProperty(name.c_str());
        return property != nullptr ? std::optional(property->GetValue()) : std::nullopt;
    }

    typename Reader::Store m_Store;
};

using Readers = testing::Types<FlatReader, SectionedReader, SectionlessReader>;

struct ReaderNames
{
    template <typename Reader>
    static std::string GetName(int /*index*/)
    {
        if (std::is_same_v<Reader, FlatReader>) {
            return "Flat";
        }
        return std::is_same_v<Reader, SectionedReader> ? "Sectioned" : "Sectionless";
    }
};

TYPED_TEST_SUITE(PropertyLines, Readers, ReaderNames);

constexpr const char* s_SampleHead = "#sample file\n"
                                     "MaxChannels = 32\n"
                                     "Mask=0x1F\n"
                                     "Mode = 010\n"
                                     "Name = \"board one\"   # a trailing comment\n"
                                     "Empty = \"\"\n";

TYPED_TEST(PropertyLines, LoadTheSampleUpToItsBadLine)
{
    this->ExpectFailure(s_SampleHead + "Path = /opt/x=y\n"s, "Invalid UInt value at line 7",
                        TypeParam::badNumberLine);
    EXPECT_EQ(this->GetNumber("MaxChannels"), 32U);
    EXPECT_EQ(this->GetNumber("Mask"), 31U);
    EXPECT_EQ(this->GetNumber("Mode"), 8U);
    EXPECT_EQ(this->GetString("Name"), "board one");
    EXPECT_EQ(this->GetString("Empty"), "");
    EXPECT_EQ(this->m_Store.GetProperty("Path", Property::AnyType), nullptr);
}

TYPED_TEST(PropertyLines, RejectASecondDefinition)
{
    this->ExpectFailure(s_SampleHead + "Mode = 3\n"s, "Property multiply defined at line 7", 284,
                        "Properties");
    EXPECT_EQ(this->GetNumber("Mode"), 8U);
}

TYPED_TEST(PropertyLines, RejectASecondDefinitionOfAnotherType)
{
    this->ExpectFailure("A = 1\nA = \"x\"\n", "Property multiply defined at line 2", 270,
                        "Properties");
    EXPECT_EQ(this->GetNumber("A"), 1U);
    this->m_Store.Clear();
    this->ExpectFailure("A = \"x\"\n\nA = 1\n", "Property multiply defined at line 3", 284,
                        "Properties");
    EXPECT_EQ(this->GetString("A"), "x");
}

TYPED_TEST(PropertyLines, RejectASecondLoadOfTheSameText)
{
    const std::string text = "# one\n\nA = 1\nB = \"2\"\n";
    this->Load(text);
    this->ExpectFailure(text, "Property multiply defined at line 3", 284, "Properties");
}

TYPED_TEST(PropertyLines, AddToWhatTheStoreHolds)
{
    this->m_Store.AddProperty("A", 1U);
    this->Load("B = 2\n");
    this->Load("C = 3\n");
    EXPECT_EQ(this->GetNumber("A"), 1U);
    EXPECT_EQ(this->GetNumber("B"), 2U);
    EXPECT_EQ(this->GetNumber("C"), 3U);
}

TYPED_TEST(PropertyLines, EmptyTheLastErrorOnSuccess)
{
    this->ExpectFailure("nonsense\n", TypeParam::missingSign + " at line 1"s,
                        TypeParam::missingSignLine);
    this->Load("");
    EXPECT_EQ(this->m_Store.GetLastError(), "");
}

TYPED_TEST(PropertyLines, RequireASign)
{
    this->ExpectFailure("A = 1\n\n# x\n  nonsense # x\n", TypeParam::missingSign + " at line 4"s,
                        TypeParam::missingSignLine);
    EXPECT_EQ(this->GetNumber("A"), 1U);
}

TYPED_TEST(PropertyLines, RequireAClosingQuote)
{
    this->ExpectFailure("A = \"x\n", "String value missing closing quote at line 1",
                        TypeParam::missingQuoteLine);
    this->ExpectFailure("\nA = \"\n", "String value missing closing quote at line 2",
                        TypeParam::missingQuoteLine);
    EXPECT_EQ(this->m_Store.GetProperty("A", Property::AnyType), nullptr);
}

TYPED_TEST(PropertyLines, AllowOnlyACommentBehindAText)
{
    const std::string error = "Invalid characters following string value at line 1";
    this->ExpectFailure("A = \"x\" y\n", error, TypeParam::afterQuoteLine);
    this->ExpectFailure("A = \"x\"\"\n", error, TypeParam::afterQuoteLine);
    this->ExpectFailure("A = \"x\\\"y\"\n", error, TypeParam::afterQuoteLine);
    this->ExpectFailure("A = \"x\"\t;#\n", error, TypeParam::afterQuoteLine);
    EXPECT_EQ(this->m_Store.GetProperty("A", Property::AnyType), nullptr);

    this->Load("A = \"x\"#y\nB = \"x\" \t # \" =\nC=\"x\" \t \n");
    EXPECT_EQ(this->GetString("A"), "x");
    EXPECT_EQ(this->GetString("B"), "x");
    EXPECT_EQ(this->GetString("C"), "x");
}

TYPED_TEST(PropertyLines, KeepATextAsItStands)
{
    this->Load("A = \" \tx\\n # = \t\"\nB=\"\xc3\xa4\x01\r\"\nC=\"'\"");
    EXPECT_EQ(this->GetString("A"), " \tx\\n # = \t");
    EXPECT_EQ(this->GetString("B"), "\xc3\xa4\x01\r");
    EXPECT_EQ(this->GetString("C"), "'");
}

TYPED_TEST(PropertyLines, TrimNamesAndValues)
{
    this->Load(" \tA b \t=\t 5 \t\n\tC\t=\t\"x\"\t\n");
    EXPECT_EQ(this->GetNumber("A b"), 5U);
    EXPECT_EQ(this->GetString("C"), "x");
}

TYPED_TEST(PropertyLines, AllowAnEmptyName)
{
    this->Load("= 7\n");
    EXPECT_EQ(this->GetNumber(""), 7U);
}

TYPED_TEST(PropertyLines, KeepANameOfBlanks)
{
    this->Load(" \t= 7\n= 8\n");
    EXPECT_EQ(this->GetNumber(" \t"), 7U);
    EXPECT_EQ(this->GetNumber(""), 8U);
}

TYPED_TEST(PropertyLines, TakeAnythingElseForAName)
{
    this->Load("a # b = 1\n\"q\" = 2\nN\xc3\xa4 = 3\n");
    EXPECT_EQ(this->GetNumber("a # b"), 1U);
    EXPECT_EQ(this->GetNumber("\"q\""), 2U);
    EXPECT_EQ(this->GetNumber("N\xc3\xa4"), 3U);
}

TYPED_TEST(PropertyLines, EndANameAtTheFirstSign)
{
    this->Load("A = \"b = c\"\nB = 5 = 6\n");
    EXPECT_EQ(this->GetString("A"), "b = c");
    EXPECT_EQ(this->GetNumber("B"), 5U);
    this->ExpectFailure("C == 5\n", "Invalid UInt value at line 1", TypeParam::badNumberLine);
}

TYPED_TEST(PropertyLines, TellNamesApartByCase)
{
    this->Load("Port = 1\nport = 2\n");
    EXPECT_EQ(this->GetNumber("Port"), 1U);
    EXPECT_EQ(this->GetNumber("port"), 2U);
}

TYPED_TEST(PropertyLines, SkipBlankLinesAndComments)
{
    this->Load("\n \t \n#\n \t# = \"\nA = 1\n \t");
    EXPECT_EQ(this->GetNumber("A"), 1U);
    EXPECT_EQ(this->m_Store.GetLastError(), "");
}

TYPED_TEST(PropertyLines, CountEveryPhysicalLine)
{
    this->ExpectFailure("\n\n# c\n \t\nA = 1\n\nB = x\n", "Invalid UInt value at line 7",
                        TypeParam::badNumberLine);
    this->ExpectFailure(std::string(1233, '\n') + "B = x", "Invalid UInt value at line 1234",
                        TypeParam::badNumberLine);
}

TYPED_TEST(PropertyLines, RefuseNul)
{
    const std::string error = "Invalid syntax (NUL character) at line 2";
    for (const std::string& line :
         {"\0"s, " \0"s, "A\0 = 1"s, "A = 1\0"s, "A = \"x\0y\""s, "A = \"x\" # \0"s, "\0# x"s}) {
        this->ExpectFailure("\n" + line + "\nB = 1\n", error, TypeParam::nulLine);
    }
    EXPECT_EQ(this->m_Store.GetProperty("A", Property::AnyType), nullptr);
    this->Load("# \0\n\t#\0\n"s);
}

TYPED_TEST(PropertyLines, ReadFilesWithCarriageReturns)
{
    this->Load("A = 12\r\nB = 0x1F\r\nC =\r\n# comment\r\n");
    EXPECT_EQ(this->GetNumber("A"), 12U);
    EXPECT_EQ(this->GetNumber("B"), 31U);
    EXPECT_EQ(this->GetNumber("C"), 0U);
    this->ExpectFailure("\nD = \"x\"\r\n", "Invalid characters following string value at line 2",
                        TypeParam::afterQuoteLine);
    this->ExpectFailure("\r\n", TypeParam::missingSign + " at line 1"s, TypeParam::missingSignLine);
}

TYPED_TEST(PropertyLines, ReadALastLineWithoutNewline)
{
    this->Load("A = 1\nB = 2");
    EXPECT_EQ(this->GetNumber("B"), 2U);
    this->ExpectFailure("\nnonsense", TypeParam::missingSign + " at line 2"s,
                        TypeParam::missingSignLine);
}

TYPED_TEST(PropertyLines, ReadLinesOfAnyLengthWhole)
{
    const std::string head = "A = \"";
    constexpr std::size_t lengths[] = {198,  199,  200,  201,  510,  511,  512,    513,
                                       1021, 1022, 1023, 1024, 1533, 1534, 100'000};
    for (const std::size_t length : lengths) {
        SCOPED_TRACE(length);
        std::string text(length - head.size() - 1, 'x');
        text.back() = 'z';
        for (const char* end : {"\"\nB = 1\n", "\""}) {
            this->m_Store.Clear();
            this->Load(head + text + end);
            EXPECT_EQ(this->GetString("A"), text);
        }
        this->m_Store.Clear();
        this->ExpectFailure("#" + std::string(length - 1, '=') + "\n" + std::string(length, 'x') +
                                "\nB = 1\n",
                            TypeParam::missingSign + " at line 2"s, TypeParam::missingSignLine);
    }
}

TYPED_TEST(PropertyLines, ReadALongNulLineAsOneLine)
{
    this->Load("#" + std::string(2000, '\0') + "\nA = 1\n");
    EXPECT_EQ(this->GetNumber("A"), 1U);
}

struct NumberCase
{
    const char* text;
    std::optional<unsigned int> flat;
    std::optional<unsigned int> sectioned;
};

constexpr std::optional<unsigned int> s_Error;
constexpr unsigned int s_MinusOne = 4294967295;

constexpr NumberCase s_NumberCases[] = {
    {"", 0, 0},
    {" \t ", 0, 0},
    {"\r", 0, 0},
    {"0", 0, 0},
    {"32", 32, 32},
    {"0x", 0, 0},
    {"0X1f", 31, 31},
    {"0x \t", 0, 0},
    {"0x g", s_Error, s_Error},
    {" 0x\r", s_Error, s_Error},
    {"010", 8, 8},
    {"08", 0, 0},
    {"+5", 5, 5},
    {"+", 0, 0},
    {"-", 0, 0},
    {"- \t", 0, 0},
    {"- 5", s_Error, s_Error},
    {"-\r", s_Error, s_Error},
    {"\v\f5", 5, 5},
    {"12abc", 12, 12},
    {"10 # ten", 10, 10},
    {"1,234", 1, 1},
    {"1.5", 1, 1},
    {"-1", s_MinusOne, s_MinusOne},
    {"2147483647", 2147483647, 2147483647},
    {"2147483648", 0, 2147483648},
    {"2147483648 x", s_Error, 2147483648},
    {"-2147483648", 2147483648, 2147483648},
    {"-2147483649", 0, 2147483647},
    {"0xFFFFFFFF", 0, s_MinusOne},
    {"0xFFFFFFFF x", s_Error, s_MinusOne},
    {"4294967296", 0, 0},
    {"4294967296 ", 0, 0},
    {"4294967296 x", s_Error, s_Error},
    {"-4294967295", 0, 1},
    {"x", s_Error, s_Error},
    {"true", s_Error, s_Error},
    {"#5", s_Error, s_Error},
    {"'5'", s_Error, s_Error},
    {"x \"5\"", s_Error, s_Error},
};

TYPED_TEST(PropertyLines, ReadNumbers)
{
    for (const NumberCase& number : s_NumberCases) {
        SCOPED_TRACE(number.text);
        this->m_Store.Clear();
        const auto expected =
            std::is_same_v<TypeParam, FlatReader> ? number.flat : number.sectioned;
        const std::string line = "A ="s + number.text + "\n";
        if (expected) {
            this->Load(line);
            EXPECT_EQ(this->GetNumber("A"), expected);
        } else {
            this->ExpectFailure(line, "Invalid UInt value at line 1", TypeParam::badNumberLine);
            EXPECT_EQ(this->m_Store.GetProperty("A", Property::AnyType), nullptr);
        }
    }
}

/// Every number looks different here.
struct ForeignNumbers : std::numpunct<char>
{
    char do_thousands_sep() const override { return ','; }
    char do_decimal_point() const override { return '2'; }
    std::string do_grouping() const override { return "\1"; }
};

TYPED_TEST(PropertyLines, KeepOutOfTheProcessLocale)
{
    const std::locale original =
        std::locale::global(std::locale(std::locale::classic(), new ForeignNumbers));
    std::istringstream in("A = 1,234\nB = 1234567\nC = 0x1,0\n" + std::string(2000, '\n') +
                          "D = x\n");
    this->ExpectFailure(in, "Invalid UInt value at line 2004", TypeParam::badNumberLine);
    std::locale::global(original);
    EXPECT_EQ(this->GetNumber("A"), 1U);
    EXPECT_EQ(this->GetNumber("B"), 1234567U);
    EXPECT_EQ(this->GetNumber("C"), 1U);
}

TYPED_TEST(PropertyLines, LeaveTheLinesBehindABadOneInTheStream)
{
    std::istringstream in("A = 1\nnonsense\nB = 2\nB = 3\nC = 4\n");
    this->ExpectFailure(in, TypeParam::missingSign + " at line 2"s, TypeParam::missingSignLine);
    EXPECT_TRUE(in.good());
    this->ExpectFailure(in, "Property multiply defined at line 2", 284, "Properties");
    TypeParam::Load(this->m_Store, in);
    EXPECT_EQ(this->GetNumber("A"), 1U);
    EXPECT_EQ(this->GetNumber("B"), 2U);
    EXPECT_EQ(this->GetNumber("C"), 4U);
}

TYPED_TEST(PropertyLines, StartWhereTheStreamStands)
{
    std::istringstream in("A = 1\nB = 2\nx\n");
    std::string skipped;
    std::getline(in, skipped);
    this->ExpectFailure(in, TypeParam::missingSign + " at line 2"s, TypeParam::missingSignLine);
    EXPECT_EQ(this->GetNumber("A"), std::nullopt);
    EXPECT_EQ(this->GetNumber("B"), 2U);
}

/// The reading end of a pipe whose writing end stays open. Reads only what is asked for, a byte at
/// a time, and never waits: where it would have to, it says so and pretends the end.
class OpenPipe : public std::streambuf
{
public:
    explicit OpenPipe(const std::string& content)
    {
        EXPECT_EQ(pipe(m_Ends.data()), 0);
        EXPECT_EQ(write(m_Ends[1], content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
    }
    OpenPipe(const OpenPipe&) = delete;
    OpenPipe& operator=(const OpenPipe&) = delete;
    ~OpenPipe() override
    {
        close(m_Ends[0]);
        close(m_Ends[1]);
    }

    bool HadToWait() const { return m_HadToWait; }

protected:
    int_type underflow() override
    {
        pollfd readable{m_Ends[0], POLLIN, 0};
        m_HadToWait = poll(&readable, 1, 0) != 1;
        if (m_HadToWait || read(m_Ends[0], &m_Byte, 1) != 1) {
            return traits_type::eof();
        }
        setg(&m_Byte, &m_Byte, &m_Byte + 1);
        return traits_type::to_int_type(m_Byte);
    }

private:
    std::array<int, 2> m_Ends{-1, -1};
    char m_Byte = 0;
    bool m_HadToWait = false;
};

TYPED_TEST(PropertyLines, FailAtOnceOnABadLineFromAnOpenPipe)
{
    for (const std::string& bad : {"nonsense"s, std::string(511, 'x'), std::string(600, 'x')}) {
        this->m_Store.Clear();
        OpenPipe pipe("A = 1\n" + bad + "\n");
        std::istream in(&pipe);
        this->ExpectFailure(in, TypeParam::missingSign + " at line 2"s, TypeParam::missingSignLine);
        EXPECT_FALSE(pipe.HadToWait());
        EXPECT_EQ(this->GetNumber("A"), 1U);
    }
}

constexpr const char* s_Unreadable = "Input is not readable at line ";

TYPED_TEST(PropertyLines, RefuseAFileThatCouldNotBeOpened)
{
    TemporaryDirectory directory;
    std::ifstream missing(directory.File("missing"));
    this->ExpectFailure(missing, s_Unreadable + "1"s, TypeParam::unreadableLine);
}

TYPED_TEST(PropertyLines, RefuseADirectory)
{
    TemporaryDirectory directory;
    std::ifstream in(directory.GetPath());
    this->ExpectFailure(in, s_Unreadable + "1"s, TypeParam::unreadableLine);
}

TYPED_TEST(PropertyLines, RefuseAFailedStream)
{
    for (const std::ios_base::iostate state : {std::ios_base::failbit, std::ios_base::badbit}) {
        std::istringstream in("A = 1\n");
        in.setstate(state);
        this->ExpectFailure(in, s_Unreadable + "1"s, TypeParam::unreadableLine);
        EXPECT_EQ(this->GetNumber("A"), std::nullopt);
    }
}

TYPED_TEST(PropertyLines, RefuseAStreamWithoutABuffer)
{
    std::istream in(nullptr);
    this->ExpectFailure(in, s_Unreadable + "1"s, TypeParam::unreadableLine);
}

TYPED_TEST(PropertyLines, TakeAnEndWithAFailureForAnEnd)
{
    std::istringstream in("nonsense\n");
    in.setstate(std::ios_base::eofbit | std::ios_base::failbit | std::ios_base::badbit);
    this->m_Store.SetLastError("old", -1);
    TypeParam::Load(this->m_Store, in);
    EXPECT_EQ(this->m_Store.GetLastError(), "");
}

TYPED_TEST(PropertyLines, TakeAFileStreamWithoutAFileForEmpty)
{
    std::ifstream never;
    TypeParam::Load(this->m_Store, never);
    EXPECT_EQ(this->m_Store.GetLastError(), "");
}

TYPED_TEST(PropertyLines, ReadNothingAtTheEnd)
{
    std::istringstream in("nonsense");
    in.setstate(std::ios_base::eofbit);
    TypeParam::Load(this->m_Store, in);
    EXPECT_EQ(in.rdstate(), std::ios_base::eofbit);
    in.clear();
    in.seekg(0, std::ios_base::end);
    TypeParam::Load(this->m_Store, in);
}

/// Fails once, as a bad disk does, when `content` is read, and then ends.
class BreakingInput : public std::streambuf
{
public:
    explicit BreakingInput(const std::string& content) : m_Content(content)
    {
        setg(m_Content.data(), m_Content.data(), m_Content.data() + m_Content.size());
    }

protected:
    int_type underflow() override
    {
        if (std::exchange(m_HasFailed, true)) {
            return traits_type::eof();
        }
        throw std::runtime_error("broken");
    }

private:
    std::string m_Content;
    bool m_HasFailed = false;
};

TYPED_TEST(PropertyLines, RefuseAStreamThatBreaks)
{
    const std::string begun(511, 'x');
    for (const std::string& end : {""s, "B = 2"s, begun, begun + "x", begun + begun}) {
        this->m_Store.Clear();
        BreakingInput input("A = 1\n\n" + end);
        std::istream in(&input);
        this->ExpectFailure(in, s_Unreadable + "3"s, TypeParam::unreadableLine);
        EXPECT_EQ(this->GetNumber("A"), 1U);
        EXPECT_EQ(this->GetNumber("B"), std::nullopt);
    }
}

TYPED_TEST(PropertyLines, LetAStreamThatThrowsThrow)
{
    BreakingInput input("A = 1\n");
    std::istream in(&input);
    in.exceptions(std::ios_base::badbit);
    EXPECT_THROW(TypeParam::Load(this->m_Store, in), std::runtime_error);
    EXPECT_EQ(this->GetNumber("A"), 1U);
}

/// Ends the reading thread once `content` is read, by the unwinding that a cancellation starts.
class ThreadEndingInput : public BreakingInput
{
public:
    using BreakingInput::BreakingInput;

protected:
    int_type underflow() override { pthread_exit(PTHREAD_CANCELED); }
};

TYPED_TEST(PropertyLines, LetTheThreadBeCancelledInTheMiddle)
{
    struct Loading
    {
        typename TypeParam::Store& store;
        bool returned = false;
    };
    Loading loading{this->m_Store};
    const auto body = [](void* argument) -> void* {
        auto* const mine = static_cast<Loading*>(argument);
        ThreadEndingInput input("A = 1\nB = 2");
        std::istream in(&input);
        TypeParam::Load(mine->store, in);
        mine->returned = true;
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &loading), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_FALSE(loading.returned);
    EXPECT_EQ(this->GetNumber("A"), 1U);
    EXPECT_EQ(this->GetNumber("B"), std::nullopt);
    this->Load("C = 3\n");
    EXPECT_EQ(this->GetNumber("C"), 3U);
}

} // namespace
