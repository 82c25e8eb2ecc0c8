#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/// A second reader of the two configuration formats (docs/formats.md), to compare the library's
/// with: it takes a file apart in one obvious step after the other, has numbers extracted by a
/// standard stream, and shares no code with the library.
namespace velahost_test {

using ReferenceValue = std::variant<unsigned int, std::string>;
using ReferenceTable = std::map<std::string, ReferenceValue>;

struct ReferenceSection
{
    std::vector<std::string> arguments;
    ReferenceTable properties = {};
    std::string lastError = {};
};

struct ReferenceStore
{
    ReferenceTable properties = {};
    std::map<std::string, std::vector<ReferenceSection>> sections = {};
    std::string lastError = {};
};

/// How a load ends.
struct ReferenceResult
{
    enum class Kind { Loaded, Refused, OutOfRange };

    Kind kind = Kind::Loaded;
    std::string site = {};    ///< Where the refusal is thrown, as "FILE:LINE".
    std::size_t consumed = 0; ///< The bytes taken from the file.

    bool operator==(const ReferenceResult&) const = default;
};

/// Adds to `store` what `Properties::Load` adds.
ReferenceResult ReferenceLoad(ReferenceStore& store, std::string_view file);
/// Adds to `store` what `PropertiesEx::Load` adds.
ReferenceResult ReferenceLoad(ReferenceStore& store, std::string_view file, bool sectionsAllowed);

/// What a standard stream makes of an unquoted value when its base is left open: nothing for an
/// error, 0 when the text ended before there was a number that fits. `Number`: int or unsigned.
template <typename Number>
std::optional<Number> ReferenceNumber(std::string_view text);

extern template std::optional<int> ReferenceNumber(std::string_view text);
extern template std::optional<unsigned int> ReferenceNumber(std::string_view text);

/// `text` without the blanks at its ends; one of nothing but blanks keeps them.
std::string ReferenceTrimmed(const std::string& text);

} // namespace velahost_test
