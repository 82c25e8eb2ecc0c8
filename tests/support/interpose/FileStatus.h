#pragma once

#include "support/Interpose.h"

#include <sys/types.h>

namespace velahost_test {

/// What the library's `stat` fills in: the record with 64-bit numbers, which isn't the one that
/// tests get from `stat` at 32 bit.
struct FileStatus;

void SetMode(FileStatus* status, mode_t mode);

namespace interposed {

extern Interposed<int(const char*, FileStatus*)> stat;

} // namespace interposed

} // namespace velahost_test
