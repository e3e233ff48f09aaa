#pragma once

#include <cstddef>
#include <memory>
#include <span>

namespace image::codec {

// What chunks of disk images are compressed with. lzma: an .xz stream.
enum class Compression { adc, zlib, bzip2, lzma };

// One thread at a time; keeps its working memory between calls.
class Decompressor {
 public:
  virtual ~Decompressor() = default;
  // True when `from` is one whole valid stream that gives exactly into.size() bytes.
  [[nodiscard]] virtual bool decompress(std::span<const std::byte> from, std::span<std::byte> into) = 0;
};

std::unique_ptr<Decompressor> makeDecompressor(Compression compression);

}  // namespace image::codec
