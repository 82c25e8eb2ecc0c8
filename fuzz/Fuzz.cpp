#include "Fuzz.h"

#include <cstdio>
#include <cstdlib>

namespace velahost_fuzz {

void Fail(const std::string& what)
{
    std::fprintf(stderr, "Broken promise: %s\n", what.c_str());
    std::abort();
}

} // namespace velahost_fuzz
