#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "base/result.h"
#include "image/blank_disk.h"

namespace tools {

struct Erasure {
  image::FileSystem fileSystem;
  std::string name;
  // As the caller calls it.
  std::string disk;
};

// What the tool asks of the process that it runs in.
struct DiskutilHost {
  std::ostream& out;
  std::ostream& error;
  std::function<base::Result<void>(const Erasure&)> erase;
};

// The disk tool: eraseDisk FAT16|FAT32|HFS+|JHFS+ NAME DISK makes a removable disk one empty volume. Takes
// the arguments without the program's name and gives the exit status: 0 done, 1 failed, 64 not understood.
// Each failure is a line on `error` that says so; on success no text holds that word.
int diskutil(const std::vector<std::string>& arguments, const DiskutilHost& host);

}  // namespace tools
