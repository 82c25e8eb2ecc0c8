#pragma once

#include "Fuzz.h"
#include "oracle/ReaderComparison.h"
#include "oracle/ReferenceReader.h"

#include <VelaHost_Utility/Properties.h>

#include <string>

namespace velahost_fuzz {

/// Library and reference reader see the same in the files.
void RequireSameReading(const velahost_test::ReaderCase& readerCase);

/// `load`, which loads `file` into `store`, succeeds.
template <typename Load>
void RequireLoads(VelaHost_Utility::Properties& store, const std::string& file, Load&& load)
{
    try {
        load();
    } catch (const VelaHost_Utility::PropertiesException&) {
        Fail("refused: " + store.GetLastError() + ": " + velahost_test::Escaped(file));
    }
    Require(store.GetLastError().empty(), "a load that succeeds leaves no last error");
}

/// The lookups give what is expected, by name and with the right defaults.
void RequireHolds(VelaHost_Utility::Properties& store,
                  const velahost_test::ReferenceTable& expected, const std::string& file);

} // namespace velahost_fuzz
