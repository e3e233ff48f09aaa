#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "image/codec/compressor.h"

namespace image::codec {

// Makes zlib streams (RFC 1950).
class ZlibCompressor : public Compressor {
 public:
  static constexpr int kFastest = 1;
  static constexpr int kSmallest = 9;

  // Level: kFastest to kSmallest, slower and smaller. The first two are one ISA-L pass over what does not
  // look like noise, and run on processors without vectors too; the others are libdeflate's.
  explicit ZlibCompressor(int level);
  ~ZlibCompressor() override;

  std::size_t compress(std::span<const std::byte> from, std::span<std::byte> into) override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// One thread at a time.
class ZlibDecompressor {
 public:
  ZlibDecompressor();
  ~ZlibDecompressor();

  // True when `from` is one whole valid stream that gives exactly into.size() bytes.
  [[nodiscard]] bool decompress(std::span<const std::byte> from, std::span<std::byte> into);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// False when a look at samples of the bytes says that deflate would not gain: photographs, films, archives.
bool looksCompressible(std::span<const std::byte> bytes);

}  // namespace image::codec
