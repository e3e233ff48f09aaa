#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace image::codec {

// The CRC-32 of ISO 3309 (zlib's) over bytes, and over zeros and neighbours that were summed elsewhere.
class CRC32 {
 public:
  CRC32() = default;
  static CRC32 of(std::span<const std::byte> bytes);
  static CRC32 ofZeros(std::uint64_t count);
  // value: a sum over `count` bytes that was taken before.
  static CRC32 known(std::uint32_t value, std::uint64_t count);

  // This sum as if the bytes of `next` had followed.
  CRC32& append(const CRC32& next);

  std::uint32_t value() const { return value_; }
  std::uint64_t count() const { return count_; }
  friend bool operator==(const CRC32&, const CRC32&) = default;

 private:
  std::uint32_t value_ = 0;
  std::uint64_t count_ = 0;
};

}  // namespace image::codec
