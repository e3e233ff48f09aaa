#include "image/codec/checksum.h"

#include <libdeflate.h>
#include <zlib.h>

namespace image::codec {

CRC32 CRC32::of(std::span<const std::byte> bytes) {
  return known(libdeflate_crc32(0, bytes.data(), bytes.size()), bytes.size());
}

CRC32 CRC32::known(std::uint32_t value, std::uint64_t count) {
  CRC32 sum;
  sum.value_ = value;
  sum.count_ = count;
  return sum;
}

// The register of an unfinished CRC moves over zeros linearly: combining with an all-zero sum of the same
// length, whose own value follows from the register's start (all ones) moved over that length.
CRC32 CRC32::ofZeros(std::uint64_t count) {
  const auto moved =
      static_cast<std::uint32_t>(crc32_combine64(0xFFFFFFFF, 0, static_cast<z_off64_t>(count)));
  return known(~moved, count);
}

CRC32& CRC32::append(const CRC32& next) {
  value_ =
      static_cast<std::uint32_t>(crc32_combine64(value_, next.value_, static_cast<z_off64_t>(next.count_)));
  count_ += next.count_;
  return *this;
}

}  // namespace image::codec
