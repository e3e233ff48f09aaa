#pragma once

#include <memory>
#include <string>

#include "base/result.h"
#include "image/os/file_descriptor.h"

struct sd_bus;

// The disk service of the system bus, for callers who may not touch a disk themselves; its policy decides
// what they may. Where that asks for a password, the desktop's own dialogue asks the person. Calls wait for
// the answer. Used by one thread.
class UDisks {
 public:
  static base::Result<UDisks> connect();

  base::Result<void> unmount(const std::string& device);
  // The whole disk, for writing, alone.
  base::Result<image::os::FileDescriptor> open(const std::string& device);
  // Has the service and the kernel look at the disk again.
  base::Result<void> rescan(const std::string& device);
  // An MBR with one FAT partition from the first mebibyte on, which needs less permission than open(). Gives
  // the file system that the service chose, as "FAT32".
  base::Result<std::string> formatFAT(const std::string& device, const std::string& label);

 private:
  struct Close {
    void operator()(sd_bus* bus) const;
  };
  explicit UDisks(std::unique_ptr<sd_bus, Close> bus) : bus_(std::move(bus)) {}

  base::Result<std::string> objectOf(const std::string& device);

  std::unique_ptr<sd_bus, Close> bus_;
};
