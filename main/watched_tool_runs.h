#pragma once

#include <functional>
#include <optional>
#include <string>

#include "ports/main_queue.h"
#include "ports/tool_runs.h"

// Tool runs that tell, on the main queue, while an image is being made. Any thread.
class WatchedToolRuns : public ports::ToolRuns {
 public:
  // The name of the volume while its image is made, nullopt afterwards.
  using Watcher = std::function<void(const std::optional<std::string>& volume)>;

  // All outlive this, and the queue's closures.
  WatchedToolRuns(ports::ToolRuns& tools, ports::MainQueue& queue, Watcher watcher)
      : tools_(tools), queue_(queue), watcher_(std::move(watcher)) {}

  std::unique_ptr<ports::InputPipe> makePipe() override { return tools_.makePipe(); }
  std::string run(const ports::ToolRun& run) override;

 private:
  ports::ToolRuns& tools_;
  ports::MainQueue& queue_;
  const Watcher watcher_;
};
