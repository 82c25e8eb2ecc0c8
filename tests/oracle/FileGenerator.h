#pragma once

#include "oracle/ReaderComparison.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace velahost_test {

/// Makes configuration files to compare readers with: mostly of the formats' grammar, with every
/// oddity that it allows, and often with one or a few mistakes. The same seed makes the same
/// case on every machine.
class FileGenerator
{
public:
    explicit FileGenerator(std::uint64_t seed) : m_State(seed) {}

    ReaderCase MakeCase(bool sectioned);

private:
    std::string File(bool tags);
    std::string Line(bool tags);
    std::string PropertyLine();
    std::string TagLine();
    std::string StartTag();
    std::string EndTag();
    std::string Name();
    std::string Value();
    std::string Number();
    std::string Text();
    std::string Blanks();
    std::string Characters(std::size_t most, std::string_view alphabet);
    std::string LongRun();
    void Spoil(std::string& file);

    std::uint64_t Random();
    std::size_t Below(std::size_t limit) { return static_cast<std::size_t>(Random() % limit); }
    /// True once in that many times.
    bool Once(std::size_t in) { return Below(in) == 0; }
    template <typename Choices>
    std::string OneOf(const Choices& choices);

    std::uint64_t m_State;
    bool m_HasFaults = false; ///< Lines that are refused may be made.
    unsigned int m_Names = 0; ///< Made in this case, so that most are new.
    bool m_IsOpen = false;    ///< A section, as far as the file is right.
    std::string m_OpenType = {};
};

} // namespace velahost_test
