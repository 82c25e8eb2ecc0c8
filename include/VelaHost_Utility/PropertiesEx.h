#pragma once

#include <VelaHost_Utility/Export.h>
#include <VelaHost_Utility/Properties.h>

#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace VelaHost_Utility {

class PropertiesSection;

/// A store that holds sections beside its own properties, filled from sectioned files
/// (docs/formats.md) and by the program.
///
/// Sections are kept by type, compared byte by byte, in the order in which they were added; any
/// number may have the same type and arguments. The store owns them: what it returns lives until
/// `Clear()` or the store's end. Threads, memory and null texts are as for `Properties`.
class VELAHOST_EXPORT PropertiesEx : public Properties
{
public:
    PropertiesEx();
    ~PropertiesEx() override;

    /// Releases every property and every section; the last-error text stays.
    void Clear();

    /// Adds a section and returns it. `arguments` is split as by `PropertiesSection`.
    PropertiesSection* AddSection(const char* type, const char* arguments);
    /// The section number `index`, from 0, of that type; null when there is none.
    PropertiesSection* GetSection(const char* type, int index);

    /// Adds every property and, if `sectionsAllowed`, every section of `in`; otherwise a line that
    /// begins with `<` is a property line like any other. A section still open at the end is
    /// accepted.
    ///
    /// Differs from `Properties::Load` in that unquoted values may be as large as 4294967295, and
    /// that a name defined twice inside a section leaves "Property multiply defined" as the
    /// section's last error, while this store's gets " at line " and the number appended to what it
    /// was. A line that ends right after its `<` throws `std::out_of_range` and leaves the last
    /// error alone.
    void Load(std::istream& in, bool sectionsAllowed);

private:
    friend class PropertiesContents;

    std::map<std::string, std::vector<PropertiesSection*>, std::less<>> m_Sections;
};

/// One section of a `PropertiesEx`: a store of its own, with the words that followed the type in
/// its tag.
class VELAHOST_EXPORT PropertiesSection : public PropertiesEx
{
public:
    /// Keeps the words of `arguments`, which are separated by spaces and tabs; quotes have no
    /// meaning.
    explicit PropertiesSection(const char* arguments);
    ~PropertiesSection() override;

    /// The argument number `index`, from 0; null when there is none. Lives as long as the section.
    const char* GetArg(int index);

private:
    friend class PropertiesContents;

    std::vector<std::string> m_Arguments;
};

} // namespace VelaHost_Utility
