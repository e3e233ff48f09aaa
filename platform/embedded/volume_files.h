#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "ports/files.h"

namespace platform::embedded {

// Files of the host, in which volumes that are plain folders are exactly full: such a volume's size is that
// of its files, so none of it is free, whatever the disk below it has left. Any thread.
class VolumeFiles : public ports::Files {
 public:
  // The host's files outlive this.
  VolumeFiles(ports::Files& host, std::function<bool(std::string_view logicalPath)> isPlainFolder)
      : host_(host), isPlainFolder_(std::move(isPlainFolder)) {}

  std::string applicationSupportDirectory() override { return host_.applicationSupportDirectory(); }
  bool fileExists(const std::string& path) override { return host_.fileExists(path); }
  std::optional<std::uint64_t> fileSize(const std::string& path) override { return host_.fileSize(path); }
  std::optional<std::uint64_t> fileSystemFreeSize(const std::string& path) override {
    return isPlainFolder_(path) ? 0 : host_.fileSystemFreeSize(path);
  }
  bool createDirectory(const std::string& path) override { return host_.createDirectory(path); }
  void enumerate(const std::string& path, const ports::ResourceKeys& keys,
                 const std::function<bool(const ports::FileItem&)>& visit) override {
    host_.enumerate(path, keys, visit);
  }

 private:
  ports::Files& host_;
  const std::function<bool(std::string_view)> isPlainFolder_;
};

}  // namespace platform::embedded
