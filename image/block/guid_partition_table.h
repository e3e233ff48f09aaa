#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// What the writer and the reader of GUID partition tables (UEFI specification, chapter 5) share.
namespace image::block {

constexpr std::string_view kTableHeaderSignature = "EFI PART";
// Of its own fields, which its CRC covers.
constexpr std::size_t kTableHeaderBytes = 92;

// 48465300-0000-11AA-AA11-00306543ECAC, in the mixed byte order of the table.
constexpr std::array<std::uint8_t, 16> kHFSPartitionType{0x00, 0x53, 0x46, 0x48, 0x00, 0x00, 0xAA, 0x11,
                                                         0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};

template <std::unsigned_integral T>
constexpr void storeLittleEndian(std::byte* to, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i) to[i] = static_cast<std::byte>(value >> (8 * i));
}

template <std::unsigned_integral T>
constexpr T loadLittleEndian(const std::byte* from) {
  std::uint64_t value = 0;
  for (std::size_t i = sizeof(T); i-- > 0;) value = value << 8 | std::to_integer<std::uint64_t>(from[i]);
  return static_cast<T>(value);
}

// The table's own CRC, over a few kilobytes once an image: the plain bitwise form (ISO 3309).
constexpr std::uint32_t crc32(std::span<const std::byte> bytes) {
  std::uint32_t crc = ~0u;
  for (const std::byte b : bytes) {
    crc ^= std::to_integer<std::uint32_t>(b);
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  return ~crc;
}

}  // namespace image::block
