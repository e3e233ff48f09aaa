#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/result.h"

namespace image::block {

// Where the bytes of a new file go. Any number of threads may write at once, at places that do not overlap.
// `bytes` may be changed by the call (encrypted in place).
class Output {
 public:
  virtual ~Output() = default;
  virtual base::Result<void> write(std::uint64_t offset, std::span<std::byte> bytes) = 0;
};

}  // namespace image::block
