#include "main/observed_tool_runs.h"

std::string ObservedToolRuns::run(const ports::ToolRun& run) {
  std::string output = tools_.run(run);
  const auto word = output.rfind("failed");
  const base::MutexLock lock(mutex_);
  lastFailure_.reset();
  if (word != output.npos) {
    const auto begin = output.rfind('\n', word) + 1;
    lastFailure_ = output.substr(begin, output.find('\n', word) - begin);
  }
  return output;
}

std::optional<std::string> ObservedToolRuns::lastFailure() const {
  const base::MutexLock lock(mutex_);
  return lastFailure_;
}
