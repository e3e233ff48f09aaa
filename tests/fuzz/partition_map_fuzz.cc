// Seeds: tests/corpus/image/disks
#include <cstdlib>

#include "image/block/partition_map.h"

// Whatever a disk says of its parts, none that is told of lies outside it.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const base::SpanRandomAccess file(std::as_bytes(std::span(bytes, size)));
  const auto map = image::block::PartitionMap::read(image::block::FileDisk(file));
  if (!map) return 0;
  const auto isInside = [&](const image::block::Extent& extent) {
    return image::block::liesWithin(extent.offset, extent.size, size);
  };
  for (const auto& partition : map->partitions)
    if (!isInside(partition.extent) || (partition.hfsPlus && !isInside(*partition.hfsPlus))) std::abort();
  return 0;
}
