#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/secret.h"

namespace ports {

// A pipe into a tool's standard input, for passwords. Filled before the tool starts, or never. Both ends are
// closed to other programs.
class InputPipe {
 public:
  virtual ~InputPipe() = default;
  // Takes any number of bytes without waiting for a reader.
  virtual void write(base::Secret bytes) = 0;
  virtual void closeWritingEnd() = 0;
};

struct ToolRun {
  enum class Capture {
    none,           // both outputs are the agent's own
    standardError,  // standard output is the agent's own
    bothOutputs,    // one pipe for both
  };

  std::string launchPath;              // a logical path, "/usr/bin/hdiutil"
  std::vector<std::string> arguments;  // logical paths in them are whole arguments
  InputPipe* standardInput = nullptr;  // null: inherited. Made by makePipe() of the same ToolRuns, used once
  Capture capture = Capture::none;
};

// Runs command-line tools. Any thread.
class ToolRuns {
 public:
  virtual ~ToolRuns() = default;

  virtual std::unique_ptr<InputPipe> makePipe() = 0;

  // Launches the tool, reads what is captured to its end, waits for the exit, and returns the captured bytes.
  // The tool's standard input ends after what was written to the pipe, even if nothing was and nobody closed
  // it. The exit status is not told: texts decide. So a tool that could not speak for itself is spoken for:
  // one that cannot be launched gives one line "TOOL: launch failed - REASON", and after the output of one
  // that was killed stands "TOOL: failed - REASON" on a line of its own.
  virtual std::string run(const ToolRun& run) = 0;
};

}  // namespace ports
