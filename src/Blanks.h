#pragma once

namespace VelaHost_Utility {

/// What counts as blank in configuration files and for `chop`; in particular no carriage return.
inline constexpr char s_Blanks[] = " \t";

} // namespace VelaHost_Utility
