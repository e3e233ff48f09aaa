#include "image/codec/adc_decompressor.h"

#include <algorithm>

namespace image::codec {
namespace {

struct Copy {
  std::size_t bytes;
  // Back from where the copy goes, at least 1.
  std::size_t distance;
};

// Copies forward, so that what was just written may be copied again.
bool repeat(const Copy& copy, std::span<std::byte> into, std::size_t& made) {
  if (copy.distance > made || copy.bytes > into.size() - made) return false;
  for (const std::size_t end = made + copy.bytes; made < end; ++made) into[made] = into[made - copy.distance];
  return true;
}

}  // namespace

bool ADCDecompressor::decompress(std::span<const std::byte> from, std::span<std::byte> into) {
  std::size_t made = 0;
  while (!from.empty()) {
    const auto at = [&](std::size_t i) { return std::to_integer<std::size_t>(from[i]); };
    const std::size_t first = at(0);
    const bool isLiteral = (first & 0x80) != 0;
    const bool isLong = (first & 0x40) != 0;
    const std::size_t taken = isLiteral ? (first & 0x7F) + 2 : isLong ? 3 : 2;
    if (taken > from.size()) return false;
    if (isLiteral) {
      if (taken - 1 > into.size() - made) return false;
      std::ranges::copy(from.subspan(1, taken - 1), into.begin() + static_cast<std::ptrdiff_t>(made));
      made += taken - 1;
    } else {
      const Copy copy = isLong ? Copy{(first & 0x3F) + 4, (at(1) << 8 | at(2)) + 1}
                               : Copy{(first >> 2) + 3, ((first & 3) << 8 | at(1)) + 1};
      if (!repeat(copy, into, made)) return false;
    }
    from = from.subspan(taken);
  }
  return made == into.size();
}

}  // namespace image::codec
