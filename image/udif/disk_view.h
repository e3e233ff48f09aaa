#pragma once

#include <cstdint>
#include <memory>

#include "base/result.h"
#include "image/block/disk.h"
#include "image/udif/reader.h"

namespace image::udif {

// The whole disk of an image, made from the chunks of all its tables; what none of them has reads as zeros.
// Chunks that were decompressed are kept for a while, no chunk is decompressed by two threads at once, and
// where somebody reads on and on, the chunks that come next are decompressed ahead, by threads that start
// then.
class DiskView final : public block::Disk {
 public:
  struct Options {
    // Of decompressed chunks that are kept.
    std::uint64_t cacheBytes = std::uint64_t{64} << 20;
    // Threads that decompress ahead; 0: one for each processor.
    unsigned workers = 0;
  };

  // The image outlives the view.
  DiskView(const Image& image, const Options& options);
  ~DiskView() override;

  std::uint64_t size() const override;
  base::Result<void> readChecked(std::uint64_t offset, std::span<std::byte> into) const override;

 private:
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace image::udif
