#pragma once

#include "platform/posix/path_map.h"
#include "ports/tool_runs.h"

// Tool runs that make an image only while they hold the lock of the folder that it goes to, so that nobody
// else works on the backups of that volume. Any thread.
class LockedToolRuns : public ports::ToolRuns {
 public:
  // Both outlive this.
  LockedToolRuns(ports::ToolRuns& tools, const platform::posix::PathMap& paths)
      : tools_(tools), paths_(paths) {}

  std::unique_ptr<ports::InputPipe> makePipe() override { return tools_.makePipe(); }
  // Waits some seconds for the lock. Without it the tool is not run, and its text says that it failed.
  std::string run(const ports::ToolRun& run) override;

 private:
  ports::ToolRuns& tools_;
  const platform::posix::PathMap& paths_;
};
