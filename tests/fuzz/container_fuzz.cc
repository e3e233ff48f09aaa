// Seeds: tests/corpus/image/containers
#include <algorithm>

#include "base/byte_order.h"
#include "image/udif/reader.h"

namespace {

using image::crypt::ContainerHeader;
using image::crypt::ContainerKeys;

// Asked for so that rounds of key derivation, which nobody bounds but the maker of the image, cost nothing.
void makeCheap(ContainerHeader& header) {
  for (auto& entry : header.keyEntries) base::storeBigEndian(entry.data() + 8, std::uint32_t{1});
}

void readEnds(const image::udif::DecryptedFile& file) {
  std::vector<std::byte> piece(std::min<std::uint64_t>(file.size(), 5000));
  static_cast<void>(file.read(0, piece));
  static_cast<void>(file.read(file.size() - piece.size(), piece));
}

}  // namespace

// Any header is refused, or opens with some keys and gives exactly as many bytes as it says.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const auto given = std::as_bytes(std::span(bytes, size));
  auto header = ContainerHeader::decode(given.first(std::min(size, ContainerHeader::kHeadBytes)));
  if (!header) return 0;
  makeCheap(*header);
  const base::SpanRandomAccess file(given);
  const auto zeros = [](std::span<std::byte> into) { std::ranges::fill(into, std::byte{0}); };
  auto keys = header->unwrap(base::Secret("secret"));
  const auto opened = image::udif::DecryptedFile::open(
      file, *header, keys ? std::move(*keys) : ContainerKeys::random(header->method, zeros));
  if (opened) readEnds(**opened);
  return 0;
}
