#pragma once

#include "image/codec/decompressor.h"

namespace image::codec {

class Bzip2Decompressor final : public Decompressor {
 public:
  bool decompress(std::span<const std::byte> from, std::span<std::byte> into) override;
};

}  // namespace image::codec
