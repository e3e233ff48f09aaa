#pragma once

#include <cstddef>
#include <span>

namespace image::codec {

// One thread at a time; keeps its working memory between calls.
class Compressor {
 public:
  virtual ~Compressor() = default;
  // The length of the whole stream that it makes, or 0 when that does not fit in `into`.
  virtual std::size_t compress(std::span<const std::byte> from, std::span<std::byte> into) = 0;
};

}  // namespace image::codec
