#pragma once

#include <map>
#include <string>
#include <string_view>

#include "base/mutex.h"

namespace platform::posix {

// The one place where logical paths become paths of this host, by whole components:
//
//   /Volumes/NAME[/...]                      the folder registered for NAME, else UNREGISTERED/NAME
//   /usr/bin/hdiutil, /usr/sbin/diskutil     the tools of that name in our own folder of tools
//   everything else                          itself
//
// A trailing slash is kept. Any thread.
class PathMap {
 public:
  // What a path below /Volumes becomes whose first component is no volume name, or that climbs with "..":
  // nothing is there, and nothing can be made there.
  static constexpr std::string_view kNowhere = "/dev/null/no-such-volume";

  // ../libexec/stashwick, seen from the folder of the running program.
  static std::string defaultToolsFolder();

  // Both are absolute folders without a trailing slash; neither has to exist.
  PathMap(std::string toolsFolder, std::string unregisteredVolumesFolder);

  // Whether a volume's name can be a path component: not empty, ".", "..", and without '/', NUL and other
  // control characters.
  static bool isVolumeName(std::string_view name);

  // From now on the volume is at that folder. False, and nothing changes, when the name is no volume name or
  // the folder is no absolute path.
  bool setVolume(std::string_view name, std::string hostFolder);
  void removeVolume(std::string_view name);

  std::string hostPath(std::string_view logicalPath) const;
  // An argument of a tool: translated as a whole when it begins with "/Volumes/", else left alone.
  std::string hostArgument(std::string_view argument) const;

 private:
  std::string hostPathInVolumes(std::string_view belowVolumes) const;

  const std::string toolsFolder_;
  const std::string unregisteredVolumesFolder_;
  mutable base::Mutex mutex_;
  std::map<std::string, std::string, std::less<>> folders_ GUARDED_BY(mutex_);
};

}  // namespace platform::posix
