// Seeds: tests/corpus/image/images
#include <algorithm>
#include <vector>

#include "image/open.h"

// Any file is refused, or is an image whose disk can be read here and there, or says why not.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const auto given = std::as_bytes(std::span(bytes, size));
  auto image = image::OpenedImage::plain(std::make_unique<base::SpanRandomAccess>(given));
  if (!image) return 0;
  (*image)->setReading({.cacheBytes = 1 << 20, .workers = 1});
  const auto& disk = (*image)->disk();
  std::vector<std::byte> piece(std::min<std::uint64_t>(disk.size(), 70'000));
  for (std::uint64_t at = 0; at + piece.size() <= disk.size() && at < piece.size() * 20; at += piece.size())
    static_cast<void>(disk.readChecked(at, piece));
  for (const auto& partition : (*image)->partitions())
    static_cast<void>(disk.readChecked(
        partition.extent.offset,
        std::span(piece).first(std::min<std::uint64_t>(piece.size(), partition.extent.size))));
  static_cast<void>(disk.readChecked(disk.size() - piece.size(), piece));
  return 0;
}
