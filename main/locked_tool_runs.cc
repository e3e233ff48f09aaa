#include "main/locked_tool_runs.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/posix/folder_lock.h"

namespace {

using platform::posix::FolderLock;
using Lock = base::Result<std::optional<FolderLock>>;

constexpr std::chrono::seconds kPatience{5};
constexpr std::chrono::milliseconds kInterval{100};

// The kernel can wait for a lock, but not for so long and no longer.
Lock lockWithin(std::chrono::milliseconds patience, const std::string& folder) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    auto lock = FolderLock::tryLock(folder);
    if (!lock || *lock || std::chrono::steady_clock::now() >= deadline) return lock;
    std::this_thread::sleep_for(kInterval);
  }
}

}  // namespace

std::string LockedToolRuns::run(const ports::ToolRun& run) {
  const auto image = std::ranges::find_if(run.arguments, [](const std::string& argument) {
    return argument.starts_with('/') && argument.ends_with(".dmg");
  });
  const bool makesImage = run.launchPath == "/usr/bin/hdiutil" && !run.arguments.empty() &&
                          run.arguments[0] == "create" && image != run.arguments.end();
  if (!makesImage) return tools_.run(run);
  const std::filesystem::path folder = std::filesystem::path(paths_.hostArgument(*image)).parent_path();
  const Lock lock = lockWithin(kPatience, folder);
  // What cannot be locked, such as a folder that is not there, the tool has to speak about.
  if (lock && !*lock)
    return "hdiutil: create failed - another program is working on the backups of " +
           folder.filename().string() + "\n";
  return tools_.run(run);
}
