#include "main/watched_tool_runs.h"

#include <algorithm>

namespace {

// The last component of the folder that an image is made of.
std::optional<std::string> volumeOf(const ports::ToolRun& run) {
  const auto option = std::ranges::find(run.arguments, "-srcfolder");
  if (option == run.arguments.end() || option + 1 == run.arguments.end()) return std::nullopt;
  const std::string& folder = *(option + 1);
  return folder.substr(folder.rfind('/') + 1);
}

}  // namespace

std::string WatchedToolRuns::run(const ports::ToolRun& run) {
  const auto volume = volumeOf(run);
  if (!volume) return tools_.run(run);
  watcher_(volume);
  std::string output = tools_.run(run);
  watcher_(std::nullopt);
  return output;
}
