#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace image::block {

inline bool allZeros(std::span<const std::byte> bytes) {
  if (bytes.empty()) return true;
  return bytes[0] == std::byte{0} && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0;
}

inline void fillZeros(std::span<std::byte> bytes) { std::ranges::fill(bytes, std::byte{0}); }

// Copies that part of `piece`, which stands at `pieceOffset`, that `window` (at `windowOffset`) shows.
inline void copyOverlap(std::span<const std::byte> piece, std::uint64_t pieceOffset,
                        std::span<std::byte> window, std::uint64_t windowOffset) {
  const auto begin = std::max(pieceOffset, windowOffset);
  const auto end = std::min(pieceOffset + piece.size(), windowOffset + window.size());
  if (begin >= end) return;
  std::ranges::copy(piece.subspan(begin - pieceOffset, end - begin),
                    window.begin() + static_cast<std::ptrdiff_t>(begin - windowOffset));
}

}  // namespace image::block
