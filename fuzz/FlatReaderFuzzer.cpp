// `Properties::Load`: reads any bytes as the reference reader does, and reads back what was
// written.

#include "FileWriter.h"
#include "Fuzz.h"
#include "StoreCheck.h"
#include "oracle/ReaderComparison.h"

#include <VelaHost_Utility/Properties.h>

#include <sstream>

namespace velahost_fuzz {

namespace {

using VelaHost_Utility::Properties;

void RoundTrip(Input& input)
{
    velahost_test::ReferenceTable expected;
    FileWriter writer(input, FileWriter::Numbers::Signed);
    while (!input.IsEmpty()) {
        writer.WriteProperty(expected);
    }
    std::istringstream file(writer.GetFile());
    Properties store;
    RequireLoads(store, writer.GetFile(), [&] { store.Load(file); });
    RequireHolds(store, expected, writer.GetFile());
}

} // namespace

} // namespace velahost_fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace velahost_fuzz;
    Input input(data, size);
    switch (input.Byte()) {
    case 'R':
        RoundTrip(input);
        break;
    case '2': {
        // Every property of the second pass is a duplicate.
        const std::string file = input.Rest();
        RequireSameReading({velahost_test::FileFormat::Flat, {file, file}, "earlier"});
        break;
    }
    default:
        RequireSameReading({velahost_test::FileFormat::Flat, {input.Rest()}});
    }
    return 0;
}
