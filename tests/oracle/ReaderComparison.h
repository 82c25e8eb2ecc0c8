#pragma once

#include "oracle/ReferenceReader.h"
#include "support/Interpose.h"

#include <string>
#include <string_view>
#include <vector>

namespace velahost_test {

enum class FileFormat { Flat, Sectioned, SectionedWithoutTags };

/// What both readers are given.
struct ReaderCase
{
    FileFormat format;
    std::vector<std::string> files; ///< Loaded one after another into one store.
    std::string lastError = {};     ///< The store's before the first load.
};

/// Loads files with the library and with the reference reader and compares all that a program can
/// see, the lines that the library logs included: they are written nowhere. One at a time.
class ReaderComparison
{
public:
    ReaderComparison();

    /// The first difference, told in words that show both sides; empty when there is none.
    std::string FindDifference(const ReaderCase& readerCase);
    /// How the reference reader's loads of the last case ended.
    const std::vector<ReferenceResult>& GetResults() const { return m_Results; }

private:
    template <typename Store>
    std::string Compare(const ReaderCase& readerCase);

    std::vector<ReferenceResult> m_Results;
    bool m_IsLoading = false; ///< What others write to standard output is let through.
    std::string m_Logged;
    Hook<int(const char*)> m_Puts;
};

/// `bytes` as a C++ string literal that may be pasted into a test.
std::string Escaped(std::string_view bytes);

} // namespace velahost_test
