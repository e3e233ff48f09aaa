#pragma once

#include <functional>
#include <optional>
#include <string>

#include "ports/tool_runs.h"

// Tool runs that tell while an image is being made. Any thread.
class WatchedToolRuns : public ports::ToolRuns {
 public:
  // Called by the thread that makes an image: with the name of its volume before, with nullopt afterwards.
  using Watcher = std::function<void(const std::optional<std::string>& volume)>;

  // The tools outlive this.
  WatchedToolRuns(ports::ToolRuns& tools, Watcher watcher) : tools_(tools), watcher_(std::move(watcher)) {}

  std::unique_ptr<ports::InputPipe> makePipe() override { return tools_.makePipe(); }
  std::string run(const ports::ToolRun& run) override;

 private:
  ports::ToolRuns& tools_;
  const Watcher watcher_;
};
