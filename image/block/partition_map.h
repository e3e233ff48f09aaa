#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "image/block/disk.h"

namespace image::block {

struct Partition {
  Extent extent{};
  // As its map has it: "Apple_HFS", "48465300-0000-11AA-AA11-00306543ECAC", "0xAF". Of a bare volume what an
  // Apple map would say.
  std::string type{};
  // In UTF-8; empty where the map has none.
  std::string name{};
  // On the disk, the HFS+ or HFSX volume in it: all of it, or what an HFS wrapper embeds. A partition whose
  // type says HFS is taken for one even where its volume header cannot be recognised, unless it holds the
  // older HFS.
  std::optional<Extent> hfsPlus{};
  // A volume of the older HFS that embeds none.
  bool isOlderHFS = false;
};

enum class PartitionScheme { none, guid, apple, masterBootRecord };

// What a disk says of its parts: a GUID partition table (UEFI specification, chapter 5; the backup where the
// primary one is damaged), an Apple partition map, a master boot record, or nothing but one HFS+
// or older HFS volume.
struct PartitionMap {
  // A bare volume too.
  PartitionScheme scheme = PartitionScheme::none;
  // In the map's order, those of free space left out. None where the disk holds nothing that is known here.
  std::vector<Partition> partitions{};

  // Fails where the disk cannot be read, where its map is damaged, and where an HFS+ partition lies outside
  // it.
  static base::Result<PartitionMap> read(const Disk& disk);
};

}  // namespace image::block
