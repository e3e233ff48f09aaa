#pragma once

#include <optional>
#include <string>
#include <vector>

namespace bench {

struct Measured {
  double seconds = 0;
  // The largest resident size of any one of the processes.
  double peakMegabytes = 0;
};

using Command = std::vector<std::string>;

// Runs a program (found in PATH) with its output thrown away. nullopt, with a line on standard error, when it
// does not end with status 0.
std::optional<Measured> measure(const Command& command);

}  // namespace bench
