#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "image/block/content.h"

namespace image::block {

using GUID = std::array<std::byte, 16>;

// A range of a disk's sectors with the name that a disk image's table gives it.
struct Region {
  std::string name;
  std::uint64_t firstSector = 0;
  std::uint64_t sectorCount = 0;
};

// A disk with a GUID partition table (UEFI specification, chapter 5) and one HFS+ partition that begins at
// sector 40, so that 4096-byte blocks are aligned. Everything around the volume is a few kilobytes of memory.
class PartitionedDisk final : public Content {
 public:
  static constexpr std::uint64_t kPartitionSector = 40;

  // The volume outlives the disk. guids: the disk's and the partition's, random.
  PartitionedDisk(const Content& volume, const GUID& diskGUID, const GUID& partitionGUID);

  std::uint64_t size() const override;
  std::unique_ptr<ContentReader> openReader() const override;
  // In order, without gaps, over the whole disk.
  std::vector<Region> regions() const;

 private:
  class Reader;

  const Content& volume_;
  std::vector<std::byte> front_;
  std::vector<std::byte> back_;
};

}  // namespace image::block
