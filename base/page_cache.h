#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "base/random_access.h"

namespace base {

// Turns many small reads into few reads of whole pages, and keeps the pages used last. Reads of a page's size
// or more go straight through. One thread at a time.
class PageCache : public RandomAccess {
 public:
  static constexpr std::size_t kPageBytes = 4096;
  static constexpr std::size_t kPages = 16;

  explicit PageCache(std::shared_ptr<const RandomAccess> bytes);

  std::uint64_t size() const override { return size_; }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override;

 private:
  struct Page {
    std::uint64_t number = 0;
    std::uint64_t lastUse = 0;
    std::array<std::byte, kPageBytes> bytes;
  };
  const Page* page(std::uint64_t number) const;
  Page& leastRecentlyUsed() const;

  const std::shared_ptr<const RandomAccess> bytes_;
  const std::uint64_t size_;
  mutable std::vector<std::unique_ptr<Page>> pages_;  // made as they are needed
  mutable std::uint64_t uses_ = 0;
};

}  // namespace base
