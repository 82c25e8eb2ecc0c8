#pragma once

namespace velahost_tools {

/// Standard output is the tools' own from now on: what the library would write there about its
/// failures goes nowhere. The tools tell failures in their own words, with `std::printf` and its
/// kin, because `std::cout` stays silent too.
void SilenceLibrary();

} // namespace velahost_tools
