// Seeds: tests/corpus/image/chunks
#include <cstdlib>
#include <vector>

#include "image/codec/decompressor.h"

// One byte that chooses the compression, two that say how long the chunk is, and its stored bytes: refused,
// or the same bytes twice.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  if (size < 3) return 0;
  const auto stored = std::as_bytes(std::span(bytes, size)).subspan(3);
  std::vector<std::byte> plain(std::size_t{bytes[1]} << 8 | bytes[2]);
  const auto decompressor =
      image::codec::makeDecompressor(static_cast<image::codec::Compression>(bytes[0] % 4));
  if (!decompressor->decompress(stored, plain)) return 0;
  std::vector<std::byte> again(plain.size());
  if (!decompressor->decompress(stored, again) || again != plain) std::abort();
  return 0;
}
