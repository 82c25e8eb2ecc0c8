#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace velahost_test {

/// The names that a library loaded into this process takes from others, functions and data, as its
/// dynamic symbol table has them. `library` is part of its file name; ends in an exception when
/// no such library is loaded.
std::vector<std::string> ImportsOf(std::string_view library);

/// The name by which the sources call an imported function: the entry points with 64-bit time, and
/// those with 64-bit file sizes, have names of their own.
std::string SourceName(std::string_view import);

} // namespace velahost_test
