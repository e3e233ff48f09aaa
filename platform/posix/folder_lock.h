#pragma once

#include <optional>
#include <string>
#include <utility>

#include "base/result.h"
#include "platform/posix/file_descriptor.h"

namespace platform::posix {

// The kernel's lock on a folder, by host path, that programs which work on its files agree to take. Nothing
// is written; the lock ends with this object or with the process, and tools that are launched do not have it.
class FolderLock {
 public:
  // nullopt when the folder is locked already, here or in another process.
  static base::Result<std::optional<FolderLock>> tryLock(const std::string& folder);

 private:
  explicit FolderLock(FileDescriptor folder) : folder_(std::move(folder)) {}

  FileDescriptor folder_;
};

// Who holds the folder's lock: "stashwick-agent (process 123)"; empty when nobody does, or where the kernel
// does not tell.
std::string folderLockHolder(const std::string& folder);

}  // namespace platform::posix
