#include "tools/diskutil.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <string_view>

namespace tools {
namespace {

constexpr int kFailed = 1;
constexpr int kNotUnderstood = 64;

constexpr std::string_view kUsage =
    "usage: diskutil eraseDisk FAT16|FAT32|HFS+|JHFS+ NAME DISK\n"
    "Erases a whole removable disk and gives it one empty volume NAME. DISK is diskN, where N is the "
    "kernel's disk\n"
    "sequence number, or a device file as /dev/sdX.\n";

struct NamedFileSystem {
  std::string_view name;
  image::FileSystem fileSystem;
};
constexpr std::array kFileSystems{NamedFileSystem{"FAT16", image::FileSystem::FAT16},
                                  NamedFileSystem{"FAT32", image::FileSystem::FAT32},
                                  NamedFileSystem{"HFS+", image::FileSystem::HFSPlus},
                                  NamedFileSystem{"JHFS+", image::FileSystem::journaledHFSPlus}};

int misunderstand(const DiskutilHost& host, const std::string& verb, const std::string& reason) {
  host.error << kUsage << "diskutil: " << verb << " failed - " << reason << "\n";
  return kNotUnderstood;
}

int eraseDisk(const std::vector<std::string>& arguments, const DiskutilHost& host) {
  if (arguments.size() != 4)
    return misunderstand(host, "eraseDisk", "a file system, a name and a disk are needed");
  const auto* known = std::ranges::find(kFileSystems, arguments[1], &NamedFileSystem::name);
  if (known == kFileSystems.end())
    return misunderstand(host, "eraseDisk", "unknown file system \"" + arguments[1] + "\"");
  const Erasure erasure{known->fileSystem, arguments[2], arguments[3]};
  auto done = image::requireVolumeName(erasure.fileSystem, erasure.name);
  if (done) done = host.erase(erasure);
  if (!done) {
    host.error << "diskutil: eraseDisk failed - " << done.error().message << "\n";
    return kFailed;
  }
  host.out << erasure.disk << " is erased and holds the empty " << known->name << " volume \"" << erasure.name
           << "\"\n";
  return 0;
}

}  // namespace

int diskutil(const std::vector<std::string>& arguments, const DiskutilHost& host) {
  if (arguments.empty()) return misunderstand(host, "diskutil", "no verb is given");
  if (arguments[0] != "eraseDisk") return misunderstand(host, arguments[0], "unknown verb");
  return eraseDisk(arguments, host);
}

}  // namespace tools
