#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"

namespace image::hfs {

struct EmptyVolumeOptions {
  std::string name;
  // Of the partition.
  std::uint64_t bytes = 0;
  bool journaled = false;
  // The root folder's.
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  // Nanoseconds since 1970.
  std::int64_t now = 0;
  // Random: tells volumes of the same name apart.
  std::uint64_t identifier = 0;
};

// Bytes, and where in the volume they stand.
struct Piece {
  std::uint64_t offset = 0;
  std::vector<std::byte> bytes;
};

// What has to be written onto a partition, whatever it held before, to make it an empty HFS+ volume (TN1150),
// in ascending order. A journaled volume's journal is marked as one to be initialised by whoever mounts it
// first.
base::Result<std::vector<Piece>> emptyVolume(const EmptyVolumeOptions& options);

}  // namespace image::hfs
