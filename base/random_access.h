#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace base {

// Bytes of known size that can be read at any offset: an open file, or memory. The size does not change while
// somebody reads. Implementations say whether several threads may read at once.
class RandomAccess {
 public:
  virtual ~RandomAccess() = default;
  virtual std::uint64_t size() const = 0;
  // Fills `into` with the bytes from offset on. False, with `into` in no particular state, when the range is
  // not wholly inside or the medium failed.
  [[nodiscard]] virtual bool read(std::uint64_t offset, std::span<std::byte> into) const = 0;
};

// Bytes that live elsewhere and outlive this. Any number of threads may read.
class SpanRandomAccess : public RandomAccess {
 public:
  explicit SpanRandomAccess(std::span<const std::byte> bytes) : bytes_(bytes) {}

  std::uint64_t size() const override { return bytes_.size(); }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override {
    if (offset > bytes_.size() || into.size() > bytes_.size() - offset) return false;
    std::ranges::copy(bytes_.subspan(offset, into.size()), into.begin());
    return true;
  }

 private:
  std::span<const std::byte> bytes_;
};

// Bytes of its own. Any number of threads may read.
class MemoryRandomAccess : public RandomAccess {
 public:
  explicit MemoryRandomAccess(std::vector<std::byte> bytes) : bytes_(std::move(bytes)) {}

  std::uint64_t size() const override { return bytes_.size(); }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override {
    return SpanRandomAccess(bytes_).read(offset, into);
  }

 private:
  std::vector<std::byte> bytes_;
};

}  // namespace base
