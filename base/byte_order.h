#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace base {

// Integers in file order, without alignment or casts. The caller has checked that the bytes are there;
// ByteReader is for bytes from outside.
template <std::unsigned_integral T>
constexpr T loadBigEndian(const std::byte* from) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i)
    value = static_cast<T>(value << 8 | std::to_integer<T>(from[i]));
  return value;
}

template <std::unsigned_integral T>
constexpr void storeBigEndian(std::byte* to, T value) {
  for (std::size_t i = sizeof(T); i-- > 0; value = static_cast<T>(value >> 8))
    to[i] = static_cast<std::byte>(value);
}

// uint8_t has nothing to shift.
template <>
constexpr std::uint8_t loadBigEndian<std::uint8_t>(const std::byte* from) {
  return std::to_integer<std::uint8_t>(*from);
}
template <>
constexpr void storeBigEndian<std::uint8_t>(std::byte* to, std::uint8_t value) {
  *to = static_cast<std::byte>(value);
}

// Appends big-endian fields to a growing buffer, in file order.
class ByteWriter {
 public:
  explicit ByteWriter(std::vector<std::byte>& out) : out_(out) {}

  template <std::unsigned_integral T>
  ByteWriter& put(T value) {
    const std::size_t at = out_.size();
    out_.resize(at + sizeof(T));
    storeBigEndian(out_.data() + at, value);
    return *this;
  }
  ByteWriter& put(std::span<const std::byte> bytes) {
    out_.insert(out_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  ByteWriter& zeros(std::size_t count) {
    out_.resize(out_.size() + count);
    return *this;
  }

 private:
  std::vector<std::byte>& out_;
};

// Reads big-endian fields from bytes of unknown origin. A read past the end yields zero (or an empty span)
// and marks the reader failed for good: read a whole structure, then ask ok() once.
class ByteReader {
 public:
  explicit ByteReader(std::span<const std::byte> bytes) : bytes_(bytes) {}

  template <std::unsigned_integral T>
  T get() {
    const auto field = take(sizeof(T));
    return field.empty() ? T{0} : loadBigEndian<T>(field.data());
  }
  std::span<const std::byte> take(std::size_t count) {
    if (count > bytes_.size() - at_) {
      ok_ = false;
      at_ = bytes_.size();
      return {};
    }
    const auto taken = bytes_.subspan(at_, count);
    at_ += count;
    return taken;
  }
  void skip(std::size_t count) { take(count); }

  bool ok() const { return ok_; }
  std::size_t offset() const { return at_; }
  std::size_t remaining() const { return bytes_.size() - at_; }

 private:
  std::span<const std::byte> bytes_;
  std::size_t at_ = 0;
  bool ok_ = true;
};

}  // namespace base
