#pragma once

#include "Fuzz.h"
#include "oracle/ReferenceReader.h"

#include <string>

namespace velahost_fuzz {

/// Writes configuration lines by the grammar of docs/formats.md, out of an input that chooses
/// names, values and layout, and keeps what a reader must make of them.
class FileWriter
{
public:
    enum class Numbers { Signed, Unsigned };

    FileWriter(Input& input, Numbers numbers) : m_Input(input), m_Numbers(numbers) {}

    /// One property, which `expected` gets, too, and maybe blank and comment lines around it. A
    /// name that `expected` has already is made another one.
    void WriteProperty(velahost_test::ReferenceTable& expected);
    /// A line with blanks before it, unless it is a property with an empty name.
    void WriteLine(const std::string& line);
    /// Up to that many bytes of the input, without those that are not allowed in it.
    std::string Characters(std::size_t most, std::string_view forbidden);

    /// The file so far; the last line may lack its newline.
    const std::string& GetFile() const { return m_File; }

private:
    std::string Name(const velahost_test::ReferenceTable& taken);
    std::string Number(unsigned int value);
    std::string Blanks();

    Input& m_Input;
    Numbers m_Numbers;
    std::string m_File;
};

} // namespace velahost_fuzz
