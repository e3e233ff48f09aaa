#pragma once

#include <atomic>
#include <string>

#include "platform/posix/path_map.h"
#include "platform/posix/xdg_folders.h"
#include "ports/files.h"

namespace platform::posix {

class PosixFiles : public ports::Files {
 public:
  // The map outlives this. The Application Support folder is the user's data folder.
  explicit PosixFiles(const PathMap& paths, std::string applicationSupportDirectory = dataHome())
      : paths_(paths), applicationSupportDirectory_(std::move(applicationSupportDirectory)) {}

  std::string applicationSupportDirectory() override;
  bool fileExists(const std::string& path) override;
  std::optional<std::uint64_t> fileSize(const std::string& path) override;
  std::optional<std::uint64_t> fileSystemFreeSize(const std::string& path) override;
  bool createDirectory(const std::string& path) override;
  // Takes memory for the names in the folders on the way down, and a bounded number of descriptors however
  // deep the tree is. A folder that is its own ancestor (a bind mount) is visited and not entered.
  void enumerate(const std::string& path, const ports::ResourceKeys& keys,
                 const std::function<bool(const ports::FileItem&)>& visit) override;

  // Every enumeration, running or later, ends at its next item. For quitting.
  void stop() { stopped_ = true; }

 private:
  const PathMap& paths_;
  const std::string applicationSupportDirectory_;
  std::atomic<bool> stopped_ = false;
};

}  // namespace platform::posix
