#pragma once

#include <optional>
#include <string>

#include "base/mutex.h"
#include "ports/tool_runs.h"

// Tool runs that can be asked what went wrong last. Any thread.
class ObservedToolRuns : public ports::ToolRuns {
 public:
  explicit ObservedToolRuns(ports::ToolRuns& tools) : tools_(tools) {}

  std::unique_ptr<ports::InputPipe> makePipe() override { return tools_.makePipe(); }
  std::string run(const ports::ToolRun& run) override;

  // The line by which the last run that has ended says that it failed; nullopt when it did not.
  std::optional<std::string> lastFailure() const;

 private:
  ports::ToolRuns& tools_;
  mutable base::Mutex mutex_;
  std::optional<std::string> lastFailure_ GUARDED_BY(mutex_);
};
