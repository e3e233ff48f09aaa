#pragma once

#include <atomic>
#include <cstdint>

namespace image::udif {

// Counts that grow while an image is written or checked; whoever shows them looks whenever it likes.
struct Progress {
  std::atomic<std::uint64_t> sectorsDone = 0;
  std::atomic<std::uint64_t> sectorsTotal = 0;
  std::atomic<std::uint64_t> bytesStored = 0;  // of an image that is written
};

}  // namespace image::udif
