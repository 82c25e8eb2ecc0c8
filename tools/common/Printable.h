#pragma once

#include <string>
#include <string_view>

namespace velahost_tools {

/// `text` for a terminal: control characters, which could do anything to one, as \xNN.
std::string Printable(std::string_view text);

} // namespace velahost_tools
