#include "image/codec/bzip2_decompressor.h"

#include <bzlib.h>
#include <limits>

namespace image::codec {

bool Bzip2Decompressor::decompress(std::span<const std::byte> from, std::span<std::byte> into) {
  constexpr std::size_t kMost = std::numeric_limits<unsigned>::max();
  if (from.size() > kMost || into.size() > kMost) return false;
  bz_stream stream{};
  if (BZ2_bzDecompressInit(&stream, 0, 0) != BZ_OK) return false;
  // The library takes its input as if it might write there, and does not.
  stream.next_in = reinterpret_cast<char*>(const_cast<std::byte*>(from.data()));
  stream.avail_in = static_cast<unsigned>(from.size());
  stream.next_out = reinterpret_cast<char*>(into.data());
  stream.avail_out = static_cast<unsigned>(into.size());
  int state = BZ_OK;
  for (bool goesOn = true; state == BZ_OK && goesOn;) {
    const unsigned in = stream.avail_in;
    const unsigned out = stream.avail_out;
    state = BZ2_bzDecompress(&stream);
    goesOn = stream.avail_in != in || stream.avail_out != out;
  }
  const bool isWhole = state == BZ_STREAM_END && stream.avail_in == 0 && stream.avail_out == 0;
  BZ2_bzDecompressEnd(&stream);
  return isWhole;
}

}  // namespace image::codec
