#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "base/random_access.h"
#include "base/result.h"

namespace image::block {

// A place on a disk, in bytes.
struct Extent {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  friend bool operator==(const Extent&, const Extent&) = default;
};

// Whether `size` bytes from `offset` on lie within the first `whole` bytes.
constexpr bool liesWithin(std::uint64_t offset, std::uint64_t size, std::uint64_t whole) {
  return offset <= whole && size <= whole - offset;
}

// The bytes of a disk, for any number of threads.
class Disk : public base::RandomAccess {
 public:
  // Fills `into` with the bytes from offset on, or says why that cannot be, with `into` in no particular
  // state.
  virtual base::Result<void> readChecked(std::uint64_t offset, std::span<std::byte> into) const = 0;
  bool read(std::uint64_t offset, std::span<std::byte> into) const final {
    return static_cast<bool>(readChecked(offset, into));
  }
};

// The Error for bytes that the disk does not have.
inline base::Error outsideDisk(std::uint64_t offset, std::uint64_t diskBytes) {
  return {"byte " + std::to_string(offset) + " lies outside the disk, which has " +
          std::to_string(diskBytes)};
}

// A disk whose bytes stand in a file as they are.
class FileDisk final : public Disk {
 public:
  // The file outlives the disk and may be read by any number of threads.
  explicit FileDisk(const base::RandomAccess& file) : file_(file) {}

  std::uint64_t size() const override { return file_.size(); }
  base::Result<void> readChecked(std::uint64_t offset, std::span<std::byte> into) const override {
    if (!liesWithin(offset, into.size(), size())) return outsideDisk(offset, size());
    if (file_.read(offset, into)) return {};
    return base::Error{"byte " + std::to_string(offset) + " of the disk cannot be read"};
  }

 private:
  const base::RandomAccess& file_;
};

// A part of a disk as a disk of its own.
class DiskPart final : public Disk {
 public:
  // The disk outlives the part. The extent lies within it.
  DiskPart(const Disk& disk, const Extent& extent) : disk_(disk), extent_(extent) {}

  std::uint64_t size() const override { return extent_.size; }
  base::Result<void> readChecked(std::uint64_t offset, std::span<std::byte> into) const override {
    if (!liesWithin(offset, into.size(), size())) return outsideDisk(offset, size());
    return disk_.readChecked(extent_.offset + offset, into);
  }

 private:
  const Disk& disk_;
  Extent extent_;
};

}  // namespace image::block
