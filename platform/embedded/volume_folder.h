#pragma once

#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

#include "ports/disk_arbitration.h"
#include "ports/files.h"

namespace platform::embedded {

// Which folder stands at a path: what is moved keeps it, what is replaced or mounted over does not.
struct FolderIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool isMountPoint = false;

  friend bool operator==(const FolderIdentity&, const FolderIdentity&) = default;
};

// nullopt when nothing is at the path, or no folder; a symbolic link is none.
std::optional<FolderIdentity> identifyFolder(const std::string& path);

// The description of a folder as the one slice of an external USB stick, without its name, BSD name and
// appearance time. A mount point is as large as its file system, a plain folder as large as the files below
// it, which takes a walk; the walk ends early once `stop` is true. The UUID of a mounted medium is the one
// that it has wherever it is plugged in; any other folder's is made (version 5) from the file system and the
// folder's inode and birth time, so it survives renames. nullopt when the folder is gone. Any thread.
std::optional<ports::DiskDescription> describeFolder(const std::string& path, ports::Files& files,
                                                     const std::function<bool()>& stop);

}  // namespace platform::embedded
