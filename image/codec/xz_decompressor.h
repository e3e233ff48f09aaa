#pragma once

#include <memory>

#include "image/codec/decompressor.h"

namespace image::codec {

// .xz streams that can be read with at most kMostMemory.
class XzDecompressor final : public Decompressor {
 public:
  static constexpr std::size_t kMostMemory = std::size_t{256} << 20;

  XzDecompressor();
  ~XzDecompressor() override;

  bool decompress(std::span<const std::byte> from, std::span<std::byte> into) override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace image::codec
