#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "image/os/file_descriptor.h"

namespace image::os {

// A whole disk of this machine, as the kernel describes it.
struct Disk {
  // As "/dev/sdb".
  std::string device;
  // Its folder in sysfs.
  std::string folder;
  // The kernel's disk sequence number: counts every disk and every medium that appears, so that a number once
  // given never means another disk.
  std::uint64_t sequence = 0;
  std::uint64_t bytes = 0;
};

// A place where the disk, or a partition of it, is mounted.
struct MountPlace {
  std::string device;
  std::string folder;
};

// The disk of a name: "disk7" or "/dev/disk7", where 7 is the disk sequence number, or a device file.
base::Result<Disk> findDisk(const std::string& name);

// Says why a disk is none to be erased: one that is not connected by USB, or cannot be written, or has no
// medium or other sectors than those of 512 bytes, or serves the system (swap, a mapped device, an array). A
// loop device is somebody's file, and may be erased by whoever may write to it.
base::Result<void> requireErasable(const Disk& disk);

base::Result<std::vector<MountPlace>> mountPlaces(const Disk& disk);

base::Result<void> unmount(const MountPlace& place);

// Opens a disk for writing, alone: no partition of it is mounted or held by anything then.
struct OpenedDisk {
  FileDescriptor file;
  // Whether the file could not be had for want of permission alone.
  bool forbidden = false;
};
base::Result<OpenedDisk> openAlone(const Disk& disk);

// Fails unless the open file is that disk, and not another that came in its place.
base::Result<void> requireSame(const FileDescriptor& file, const Disk& disk);

// Makes the disk's bytes those of `contents` where that has any; holes are left alone. Nobody finds a
// partition table on the disk until everything else of it is safe.
base::Result<void> overwrite(const FileDescriptor& disk, const FileDescriptor& contents);

// Has the kernel look at the partition table again, once nobody looks into a partition of before any more:
// the system's services do so at any moment, and not for long.
base::Result<void> readPartitionsAgain(const FileDescriptor& file);

}  // namespace image::os
