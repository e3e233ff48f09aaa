#include "image/blank_disk.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>
#include <vector>

#include "base/byte_order.h"
#include "image/hfs/empty_volume.h"
#include "image/hfs/unicode_name.h"
#include "image/os/host.h"
#include "image/os/posix_error.h"
#include "image/os/program.h"

namespace image {
namespace {

constexpr std::uint64_t kPartitionOffset = 1 << 20;
// Where other partition tables and file systems put what they are known by.
constexpr std::uint64_t kClearedBytes = 1 << 20;
constexpr std::uint64_t kSmallestDisk = 8 << 20;
constexpr std::uint64_t kLargestMBRDisk = 2ull << 40;
constexpr std::uint64_t kLargestFAT16Disk = 4ull << 30;
constexpr std::uint64_t kBlockBytes = 4096;
// The backup GPT: 32 sectors of entries and a header.
constexpr std::uint64_t kGPTEndBytes = 33 * 512;

bool isFAT(FileSystem fileSystem) {
  return fileSystem == FileSystem::FAT16 || fileSystem == FileSystem::FAT32;
}

bool mayStandInLabel(char character) {
  return (character >= 'A' && character <= 'Z') || (character >= '0' && character <= '9') ||
         std::string_view(" !#$%&'()-@^_`{}~").find(character) != std::string_view::npos;
}

base::Result<void> write(const os::FileDescriptor& file, std::uint64_t offset,
                         std::span<const std::byte> bytes) {
  const ssize_t put = ::pwrite(file.number(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
  if (put != static_cast<ssize_t>(bytes.size()))
    return os::posixError("cannot write to", "a file in memory", errno);
  return {};
}

// What one partition from the first mebibyte on can have.
std::uint64_t partitionBytes(const BlankDisk& disk) {
  const std::uint64_t end = disk.bytes - (isFAT(disk.fileSystem) ? 0 : kGPTEndBytes);
  return (end - kPartitionOffset) / kBlockBytes * kBlockBytes;
}

base::Result<void> requireSize(const BlankDisk& disk) {
  if (disk.bytes < kSmallestDisk) return base::Error{"the disk is too small for a partition and a volume"};
  if (isFAT(disk.fileSystem) && disk.bytes > kLargestMBRDisk)
    return base::Error{"the disk is larger than a partition for FAT can be (2 TiB)"};
  if (disk.fileSystem == FileSystem::FAT16 && disk.bytes > kLargestFAT16Disk)
    return base::Error{"the disk is larger than a FAT16 volume can be (4 GiB)"};
  return {};
}

base::Result<void> putTable(const BlankDisk& disk, const os::FileDescriptor& file) {
  const std::string range = "start=" + std::to_string(kPartitionOffset / 512) +
                            ", size=" + std::to_string(partitionBytes(disk) / 512) + ", type=";
  std::string table = "label: gpt\n" + range + "48465300-0000-11AA-AA11-00306543ECAC\n";  // Apple HFS
  if (disk.fileSystem == FileSystem::FAT16) table = "label: dos\n" + range + "e\n";
  if (disk.fileSystem == FileSystem::FAT32) table = "label: dos\n" + range + "c\n";
  return os::runProgram({"/usr/sbin/sfdisk", "--quiet", os::pathOf(file)}, table, file);
}

base::Result<void> putFAT(const BlankDisk& disk, const os::FileDescriptor& file) {
  const std::string sectors = std::to_string(kPartitionOffset / 512);
  return os::runProgram(
      {"/usr/sbin/mkfs.fat", "-F", disk.fileSystem == FileSystem::FAT16 ? "16" : "32", "-n", disk.name, "-h",
       sectors, "--offset=" + sectors, os::pathOf(file), std::to_string(partitionBytes(disk) / 1024)},
      "", file);
}

base::Result<void> putHFSPlus(const BlankDisk& disk, const os::FileDescriptor& file) {
  std::array<std::byte, 8> random;
  os::fillRandom(random);
  const auto pieces = hfs::emptyVolume({.name = disk.name,
                                        .bytes = partitionBytes(disk),
                                        .journaled = disk.fileSystem == FileSystem::journaledHFSPlus,
                                        .owner = disk.owner,
                                        .group = disk.group,
                                        .now = os::now(),
                                        .identifier = base::loadBigEndian<std::uint64_t>(random.data())});
  if (!pieces) return pieces.error();
  for (const hfs::Piece& piece : *pieces)
    if (auto put = write(file, kPartitionOffset + piece.offset, piece.bytes); !put) return put;
  return {};
}

}  // namespace

base::Result<void> requireVolumeName(FileSystem fileSystem, const std::string& name) {
  const base::Error refused{"cannot call a volume \"" + name + "\""};
  if (!isFAT(fileSystem)) {
    const bool special = name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
                         std::ranges::any_of(name, [](unsigned char c) { return c < ' ' || c == 0x7F; });
    if (special || !hfs::storedName(name)) return refused;
    return {};
  }
  if (name.empty() || name.size() > 11 || name.front() == ' ' || name.back() == ' ' || name == "NO NAME" ||
      !std::ranges::all_of(name, mayStandInLabel))
    return base::Error{refused.message +
                       ": a FAT volume's name is up to 11 capital letters, digits and a few signs"};
  return {};
}

base::Result<os::FileDescriptor> layBlankDisk(const BlankDisk& disk) {
  if (auto named = requireVolumeName(disk.fileSystem, disk.name); !named) return named.error();
  if (auto sized = requireSize(disk); !sized) return sized.error();
  auto file = os::memoryFile(disk.bytes);
  if (!file) return file;
  const std::vector<std::byte> zeros(kClearedBytes);
  for (const std::uint64_t offset : {std::uint64_t{0}, kPartitionOffset, disk.bytes - kClearedBytes})
    if (auto cleared = write(*file, offset, zeros); !cleared) return cleared.error();
  if (auto put = putTable(disk, *file); !put) return put.error();
  if (auto put = isFAT(disk.fileSystem) ? putFAT(disk, *file) : putHFSPlus(disk, *file); !put)
    return put.error();
  return file;
}

}  // namespace image
