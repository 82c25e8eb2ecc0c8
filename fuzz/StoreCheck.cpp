#include "StoreCheck.h"

namespace velahost_fuzz {

void RequireSameReading(const velahost_test::ReaderCase& readerCase)
{
    static velahost_test::ReaderComparison s_Comparison;
    const std::string difference = s_Comparison.FindDifference(readerCase);
    if (!difference.empty()) {
        Fail(difference);
    }
}

void RequireHolds(VelaHost_Utility::Properties& store,
                  const velahost_test::ReferenceTable& expected, const std::string& file)
{
    const std::string otherwise = "default";
    for (const auto& [name, value] : expected) {
        bool holds = false;
        if (const unsigned int* number = std::get_if<unsigned int>(&value)) {
            holds = GetUIntPropertyValue(store, name.c_str(), ~*number) == *number &&
                    &GetStringPropertyValue(store, name.c_str(), otherwise) == &otherwise;
        } else {
            holds = GetStringPropertyValue(store, name.c_str(), otherwise) ==
                        std::get<std::string>(value) &&
                    GetUIntPropertyValue(store, name.c_str(), 4711) == 4711 &&
                    &GetStringPropertyValue(store, name.c_str(), otherwise) != &otherwise;
        }
        if (!holds) {
            Fail("property " + velahost_test::Escaped(name) +
                 " is not read as it was written: " + velahost_test::Escaped(file));
        }
    }
}

} // namespace velahost_fuzz
