#include "image/codec/bzip2_compressor.h"

#include <bzlib.h>
#include <limits>

namespace image::codec {

std::size_t Bzip2Compressor::compress(std::span<const std::byte> from, std::span<std::byte> into) {
  constexpr int kLargestBlocks = 9;
  constexpr int kQuiet = 0;
  constexpr int kUsualWork = 0;
  constexpr std::size_t kMost = std::numeric_limits<unsigned>::max();
  if (from.size() > kMost || into.size() > kMost) return 0;
  auto made = static_cast<unsigned>(into.size());
  // The library takes its input as if it might write there, and does not.
  auto* const bytes = reinterpret_cast<char*>(const_cast<std::byte*>(from.data()));
  const int state =
      BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(into.data()), &made, bytes,
                               static_cast<unsigned>(from.size()), kLargestBlocks, kQuiet, kUsualWork);
  return state == BZ_OK ? made : 0;
}

}  // namespace image::codec
