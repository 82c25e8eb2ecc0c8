#pragma once

#include <set>
#include <string>
#include <vector>

namespace velahost_test {

/// The long options that a tool's help shows, its commands' included.
std::set<std::string> OptionsOfHelp(const std::string& tool,
                                    const std::vector<std::string>& commands);

/// The long options that a manual page describes.
std::set<std::string> OptionsOfManualPage(const std::string& file);

} // namespace velahost_test
