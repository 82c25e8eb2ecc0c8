#pragma once

#include <VelaHost_Utility/PropertiesEx.h>

namespace VelaHost_Utility {

/// Everything that a store holds, for programs of this tree that show it. Applications know the
/// names that they look up.
class PropertiesContents
{
public:
    /// By name.
    static const auto& GetProperties(const Properties& store) { return store.m_Properties; }
    /// By type; those of one type in the order in which they were added.
    static const auto& GetSections(const PropertiesEx& store) { return store.m_Sections; }
    static const auto& GetArguments(const PropertiesSection& section)
    {
        return section.m_Arguments;
    }
};

} // namespace VelaHost_Utility
