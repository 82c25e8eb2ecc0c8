#pragma once

#include "Operation.h"

namespace velahost_test {

/// Performs the operation with every fallible call that it makes failing in turn, once and for
/// good, and compares what becomes of it with its table, by GoogleTest's non-fatal failures. A call
/// that the table does not tell of is a failure, and so is a row that nothing comes of. Each time,
/// nothing may be left open, mapped or allocated when the scene is gone, and the operation is made
/// again on the same objects.
void TortureByCalls(const Operation& operation);

/// The same with every allocation failing in turn. Then with every allocation failing while a call
/// has failed: memory is short when an exception is to be made.
void TortureByAllocations(const Operation& operation);

} // namespace velahost_test
