#pragma once

#include <atomic>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/secret.h"

namespace tools {

// What the tool asks of the process that it runs in.
struct HdiutilHost {
  std::ostream& out;
  std::ostream& error;
  std::function<base::Result<base::Secret>()> readPassword;
  // Whether a person watches `error`.
  bool errorIsTerminal = false;
  // Set when the person interrupts.
  const std::atomic<bool>& cancelled;
};

// The disk image tool: runs the verb that the arguments (without the program's name) begin with, and gives
// the exit status: 0 done, 1 failed, 64 not understood. Each failure is one line on `error` that begins
// "hdiutil: VERB failed - "; on success no text holds that word.
int hdiutil(const std::vector<std::string>& arguments, const HdiutilHost& host);

}  // namespace tools
