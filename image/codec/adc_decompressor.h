#pragma once

#include "image/codec/decompressor.h"

namespace image::codec {

// Apple Data Compression, of the oldest compressed images: literal runs and copies of earlier bytes, told
// apart by the two upper bits of their first byte.
class ADCDecompressor final : public Decompressor {
 public:
  bool decompress(std::span<const std::byte> from, std::span<std::byte> into) override;
};

}  // namespace image::codec
