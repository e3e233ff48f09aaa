#include "image/hfs/nanoseconds.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "base/byte_order.h"
#include "image/block/zeros.h"

namespace image::hfs {
namespace {

constexpr std::string_view kSignature = "stashwick.nsec.1";
constexpr std::size_t kEntryBytes = kNanosecondsEntryBytes;
static_assert(kSignature.size() == kEntryBytes);

std::array<std::byte, kEntryBytes> entryOf(const Times& times) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  std::array<std::byte, kEntryBytes> entry;
  std::size_t at = 0;
  for (const std::int64_t time : {times.created, times.modified, times.changed, times.accessed}) {
    const std::int64_t fraction = (time % kNanoseconds + kNanoseconds) % kNanoseconds;
    base::storeBigEndian(entry.data() + at, static_cast<std::uint32_t>(fraction));
    at += 4;
  }
  return entry;
}

}  // namespace

std::uint64_t nanosecondsBytes(const Tree& tree) {
  return tree.hasFractions() ? kSignature.size() + tree.nodes().size() * kEntryBytes : 0;
}

void readNanoseconds(const Tree& tree, std::uint64_t offset, std::span<std::byte> into) {
  block::copyOverlap(std::as_bytes(std::span(kSignature)), 0, into, offset);
  const std::uint64_t end = offset + into.size();
  for (std::uint64_t at = std::max(offset / kEntryBytes, std::uint64_t{1}); at * kEntryBytes < end; ++at)
    block::copyOverlap(entryOf(tree.nodes()[at - 1].times), at * kEntryBytes, into, offset);
}

bool isNanosecondsSignature(std::span<const std::byte> bytes) {
  return std::ranges::equal(bytes, std::as_bytes(std::span(kSignature)));
}

std::optional<std::uint64_t> nanosecondsOffset(std::uint32_t catalogID) {
  constexpr std::uint32_t kRootID = 2;
  constexpr std::uint32_t kFirstUserID = 16;
  if (catalogID == kRootID) return kSignature.size();
  if (catalogID < kFirstUserID) return std::nullopt;
  return kSignature.size() + (std::uint64_t{catalogID} - kFirstUserID + 1) * kEntryBytes;
}

}  // namespace image::hfs
