#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/random_access.h"
#include "base/result.h"

namespace image::block {

// Where the bytes of a new file go. Any number of threads may write at once, at places that do not overlap.
// `bytes` may be changed by the call (encrypted in place).
class Output {
 public:
  virtual ~Output() = default;
  virtual base::Result<void> write(std::uint64_t offset, std::span<std::byte> bytes) = 0;

  // What has been written so far, read from where it is kept and not from memory on the way there, for any
  // number of threads; ends with the Output. Reading what was not written yet fails or gives anything. Null
  // where that cannot be had before everything is written.
  virtual std::unique_ptr<base::RandomAccess> readBack() const { return nullptr; }
};

}  // namespace image::block
