#pragma once

#include "image/codec/compressor.h"

namespace image::codec {

// Makes bzip2 streams with the largest blocks, 900,000 bytes.
class Bzip2Compressor : public Compressor {
 public:
  std::size_t compress(std::span<const std::byte> from, std::span<std::byte> into) override;
};

}  // namespace image::codec
