#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "image/os/file_descriptor.h"

namespace image {

enum class FileSystem { FAT16, FAT32, HFSPlus, journaledHFSPlus };

struct BlankDisk {
  FileSystem fileSystem = FileSystem::FAT32;
  // The volume's.
  std::string name;
  // Of the whole disk.
  std::uint64_t bytes = 0;
  // Whose the root folder of an HFS+ volume is.
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
};

// Why no volume of that file system can have the name. A FAT volume's label is up to 11 of the characters
// that short names may have, which are no small letters; it is never made fit by changing it.
base::Result<void> requireVolumeName(FileSystem fileSystem, const std::string& name);

// A file in memory as large as the disk, with data wherever the disk must be written to be blank: a partition
// table with one partition from the first mebibyte to the end, an empty volume in it, and zeros over the
// beginning and the end of whatever was there before. The table is an MBR for FAT, a GPT for HFS+.
base::Result<os::FileDescriptor> layBlankDisk(const BlankDisk& disk);

}  // namespace image
