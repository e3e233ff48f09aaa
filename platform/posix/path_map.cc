#include "platform/posix/path_map.h"

#include <algorithm>
#include <utility>

#include "platform/posix/durable_file.h"

namespace platform::posix {
namespace {

constexpr std::string_view kVolumes = "/Volumes";

bool climbs(std::string_view path) {
  while (!path.empty()) {
    const auto end = path.find('/');
    if (path.substr(0, end) == "..") return true;
    path = end == path.npos ? std::string_view() : path.substr(end + 1);
  }
  return false;
}

}  // namespace

PathMap::PathMap(std::string toolsFolder, std::string unregisteredVolumesFolder)
    : toolsFolder_(std::move(toolsFolder)),
      unregisteredVolumesFolder_(std::move(unregisteredVolumesFolder)) {}

std::string PathMap::defaultToolsFolder() {
  return folderOf(folderOf(linkTarget("/proc/self/exe"))) + "/libexec/stashwick";
}

bool PathMap::isVolumeName(std::string_view name) {
  const auto forbidden = [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F || byte == '/';
  };
  return !name.empty() && name != "." && name != ".." && std::ranges::none_of(name, forbidden);
}

bool PathMap::setVolume(std::string_view name, std::string hostFolder) {
  if (!isVolumeName(name) || !hostFolder.starts_with('/')) return false;
  while (hostFolder.size() > 1 && hostFolder.ends_with('/')) hostFolder.pop_back();
  base::MutexLock lock(mutex_);
  folders_.insert_or_assign(std::string(name), std::move(hostFolder));
  return true;
}

void PathMap::removeVolume(std::string_view name) {
  base::MutexLock lock(mutex_);
  if (const auto found = folders_.find(name); found != folders_.end()) folders_.erase(found);
}

std::string PathMap::hostPath(std::string_view logicalPath) const {
  if (logicalPath == "/usr/bin/hdiutil") return toolsFolder_ + "/hdiutil";
  if (logicalPath == "/usr/sbin/diskutil") return toolsFolder_ + "/diskutil";
  if (logicalPath == kVolumes) return std::string(kNowhere);
  if (!logicalPath.starts_with("/Volumes/")) return std::string(logicalPath);
  return hostPathInVolumes(logicalPath.substr(kVolumes.size() + 1));
}

std::string PathMap::hostArgument(std::string_view argument) const {
  return argument.starts_with("/Volumes/") ? hostPath(argument) : std::string(argument);
}

std::string PathMap::hostPathInVolumes(std::string_view belowVolumes) const {
  const auto name = belowVolumes.substr(0, belowVolumes.find('/'));
  const auto rest = belowVolumes.substr(name.size());
  if (!isVolumeName(name) || climbs(rest)) return std::string(kNowhere);
  base::MutexLock lock(mutex_);
  if (const auto found = folders_.find(name); found != folders_.end())
    return found->second + std::string(rest);
  return unregisteredVolumesFolder_ + "/" + std::string(belowVolumes);
}

}  // namespace platform::posix
