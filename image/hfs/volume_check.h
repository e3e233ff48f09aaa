#pragma once

#include <cstdint>

#include "base/result.h"
#include "image/block/disk.h"

namespace image::hfs {

struct VolumeCounts {
  std::uint32_t files = 0;
  std::uint32_t folders = 0;
};

// Checks a whole HFS+ or HFSX volume of any maker, as its journal leaves it: both volume headers, the
// structure and key order of all B-trees, that each item has its thread and each thread its item, valences,
// counts, hard links, attributes, and that the allocation file marks the blocks that something uses,
// once each. Gives the first fault that is found. Memory: two bits for each allocation block and some bytes
// for each tree node.
base::Result<VolumeCounts> checkVolume(const block::Disk& disk);

}  // namespace image::hfs
