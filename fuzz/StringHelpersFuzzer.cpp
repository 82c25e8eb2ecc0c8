// The string helpers, each against an obvious second way, and the number parser against a stream's
// extraction.

#include "Fuzz.h"
#include "oracle/ReferenceReader.h"

#include <NumberText.h>
#include <VelaHost_OS/StringHelpers.h>
#include <VelaHost_Utility/StringHelpers.h>

#include <cctype>
#include <vector>

namespace velahost_fuzz {

namespace {

using namespace VelaHost_Utility;
using velahost_test::ReferenceNumber;

void CheckChop(const std::string& text)
{
    std::string chopped = text;
    chop(chopped);
    Require(chopped == velahost_test::ReferenceTrimmed(text),
            "chop removes the blanks at both ends");
    std::string twice = chopped;
    chop(twice);
    Require(twice == chopped, "chop leaves nothing to chop");
}

void CheckNumber(const std::string& text)
{
    const std::optional<int> expected = ReferenceNumber<int>(text);
    const std::optional<unsigned int> number = ReadNumber(text, NumberRange::Signed);
    Require(number.has_value() == expected.has_value() &&
                (!number || *number == static_cast<unsigned int>(*expected)),
            "a signed number is what a stream extracts");
    Require(ReadNumber(text, NumberRange::Unsigned) == ReferenceNumber<unsigned int>(text),
            "an unsigned number is what a stream extracts");
}

/// Exactly the bytes of a C string, so that a step too far is seen.
std::vector<char> Buffer(const std::string& text)
{
    return {text.c_str(), text.c_str() + text.size() + 1};
}

void CheckCopies(const std::string& text, unsigned int max)
{
    const std::vector<char> source = Buffer(text);
    const std::string expected = max <= 1 ? std::string() : text;
    std::vector<char> destination(expected.size() + 1, '?');
    Require(strmaxcpy(destination.data(), source.data(), max) == destination.data(),
            "strmaxcpy returns its destination");
    Require(destination == Buffer(expected), "strmaxcpy copies all or, below 2, nothing");

    destination.assign(expected.size() + 1, '?');
    const int result = strcpycnt(destination.data(), source.data(), max);
    Require(result == (max == 0 ? -1 : 0), "strcpycnt returns -1 for 0, else 0");
    Require(destination == Buffer(expected), "strcpycnt copies as strmaxcpy does");

    // A text may be shifted to the left in place.
    std::vector<char> shifted(1, '?');
    shifted.insert(shifted.end(), source.begin(), source.end());
    strmaxcpy(shifted.data(), shifted.data() + 1, 2);
    shifted.pop_back();
    Require(shifted == source, "strmaxcpy shifts to the left");
}

void CheckCases(const std::string& text)
{
    std::vector<char> raised = Buffer(text);
    Require(strupr(raised.data()) == raised.data(), "strupr returns its argument");
    std::vector<char> lowered = Buffer(text);
    Require(VelaHost_OS::strlwr(lowered.data()) == lowered.data(), "strlwr returns its argument");
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        // Beyond ASCII the "C" locale has no letters.
        Require(raised[i] == (c >= 'a' && c <= 'z' ? static_cast<char>(c - 0x20) : c),
                "strupr raises letters");
        Require(lowered[i] == (c >= 'A' && c <= 'Z' ? static_cast<char>(c + 0x20) : c),
                "strlwr lowers ASCII letters");
    }
    Require(raised[text.size()] == '\0' && lowered[text.size()] == '\0', "the terminator stays");
}

} // namespace

} // namespace velahost_fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace velahost_fuzz;
    Input input(data, size);
    const unsigned int max = input.Byte();
    const std::string text = input.Rest();
    const std::string cString = text.c_str();
    CheckChop(text);
    CheckNumber(text);
    CheckCopies(cString, max);
    CheckCases(cString);
    Require(VelaHost_Utility::strupr(nullptr) == nullptr, "strupr takes null");
    return 0;
}
