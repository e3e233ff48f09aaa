#include "base/page_cache.h"

#include <algorithm>
#include <utility>

namespace base {
namespace {

// What no page of a file has for its number.
constexpr std::uint64_t kNoPage = ~std::uint64_t{0};

}  // namespace

PageCache::PageCache(std::shared_ptr<const RandomAccess> bytes)
    : bytes_(std::move(bytes)), size_(bytes_->size()) {}

bool PageCache::read(std::uint64_t offset, std::span<std::byte> into) const {
  if (offset > size_ || into.size() > size_ - offset) return false;
  if (into.size() >= kPageBytes) return bytes_->read(offset, into);
  while (!into.empty()) {
    const Page* source = page(offset / kPageBytes);
    if (!source) return false;
    const std::size_t within = offset % kPageBytes;
    const std::size_t count = std::min(into.size(), kPageBytes - within);
    std::copy_n(source->bytes.begin() + static_cast<std::ptrdiff_t>(within), count, into.begin());
    into = into.subspan(count);
    offset += count;
  }
  return true;
}

const PageCache::Page* PageCache::page(std::uint64_t number) const {
  for (const auto& known : pages_) {
    if (known->number != number) continue;
    known->lastUse = ++uses_;
    return known.get();
  }
  Page& page = leastRecentlyUsed();
  page.number = kNoPage;
  const std::uint64_t start = number * kPageBytes;
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(kPageBytes, size_ - start));
  if (!bytes_->read(start, std::span(page.bytes).first(count))) return nullptr;
  page.number = number;
  page.lastUse = ++uses_;
  return &page;
}

PageCache::Page& PageCache::leastRecentlyUsed() const {
  if (pages_.size() < kPages) return *pages_.emplace_back(std::make_unique<Page>());
  return **std::ranges::min_element(pages_, {}, [](const auto& page) { return page->lastUse; });
}

}  // namespace base
