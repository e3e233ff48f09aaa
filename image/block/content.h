#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/result.h"

namespace image::block {

constexpr std::size_t kSectorBytes = 512;

enum class Filled { data, zeros };

// One thread's view of a Content. Not shared between threads; many may exist at once.
class ContentReader {
 public:
  virtual ~ContentReader() = default;
  // The bytes from offset on. Filled::zeros means that all of them are zero and that `into` was left alone.
  virtual base::Result<Filled> read(std::uint64_t offset, std::span<std::byte> into) = 0;
};

// The bytes of a volume or disk, made on demand at any offset, the same ones every time.
class Content {
 public:
  virtual ~Content() = default;
  // In bytes, a multiple of the sector size.
  virtual std::uint64_t size() const = 0;
  virtual std::unique_ptr<ContentReader> openReader() const = 0;
};

}  // namespace image::block
