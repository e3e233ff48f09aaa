#pragma once

#include <string>

#include "base/result.h"
#include "image/os/file_descriptor.h"
#include "platform/linux/message_bus.h"

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
  explicit UDisks(platform::freedesktop::MessageBus bus) : bus_(std::move(bus)) {}

  base::Result<std::string> objectOf(const std::string& device);

  platform::freedesktop::MessageBus bus_;
};
