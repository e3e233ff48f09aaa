#include "image/hfs/journal.h"

#include <algorithm>
#include <array>
#include <bit>
#include <string>

#include "base/byte_order.h"

namespace image::hfs {
namespace {

constexpr std::size_t kHeadBytes = 44;
constexpr std::size_t kHeadSumAt = 36;
constexpr std::size_t kListHeadBytes = 32;
constexpr std::size_t kListSumAt = 8;
constexpr std::size_t kBlockInfoBytes = 16;

base::Error damaged(std::string_view how) { return {"the journal is damaged: " + std::string(how)}; }

// Over the bytes with zeros where the sum itself stands.
std::uint32_t checksum(std::span<const std::byte> bytes, std::size_t sumAt) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const bool isSum = i >= sumAt && i < sumAt + 4;
    sum = sum << 8 ^ (sum + (isSum ? 0 : std::to_integer<std::uint32_t>(bytes[i])));
  }
  return ~sum;
}

}  // namespace

class JournaledDisk::Fields {
 public:
  Fields(std::span<const std::byte> bytes, bool isLittleEndian)
      : bytes_(bytes), isLittleEndian_(isLittleEndian) {}

  // The caller knows that the bytes are there.
  template <std::unsigned_integral T>
  T get(std::size_t at) const {
    std::array<std::byte, sizeof(T)> field;
    std::ranges::copy(bytes_.subspan(at, sizeof(T)), field.begin());
    if (isLittleEndian_) std::ranges::reverse(field);
    return base::loadBigEndian<T>(field.data());
  }

 private:
  std::span<const std::byte> bytes_;
  bool isLittleEndian_;
};

base::Result<std::unique_ptr<JournaledDisk>> JournaledDisk::replay(const block::Disk& disk,
                                                                   const VolumeHeader& header) {
  constexpr std::uint32_t kJournaling = 0x4846534A;  // "HFSJ"
  if ((header.attributes & VolumeHeader::kJournaled) == 0 ||
      (header.attributes & VolumeHeader::kUnmountedCleanly) != 0 || header.lastMountedVersion != kJournaling)
    return std::unique_ptr<JournaledDisk>();
  std::unique_ptr<JournaledDisk> journaled(new JournaledDisk(disk));
  if (auto found = journaled->findJournal(header); !found) return found.error();
  if (journaled->size_ == 0) return std::unique_ptr<JournaledDisk>();
  if (auto read = journaled->readHead(); !read) return read.error();
  std::uint64_t passed = 0;
  for (std::uint64_t at = journaled->start_; at != journaled->end_;) {
    const auto bytes = journaled->readBlockList(at);
    if (!bytes) return bytes.error();
    passed += *bytes;
    if (passed > journaled->size_) return damaged("it does not come to its end");
    at = journaled->wrapped(at + *bytes);
  }
  if (journaled->pieces_.empty()) return std::unique_ptr<JournaledDisk>();
  return journaled;
}

// Flags: 1 in the volume itself, 2 on another device, 4 not made yet.
base::Result<void> JournaledDisk::findJournal(const VolumeHeader& header) {
  constexpr std::size_t kInfoBytes = 4 + 32 + 8 + 8;
  std::array<std::byte, kInfoBytes> info;
  const std::uint64_t at = std::uint64_t{header.journalInfoBlock} * header.blockBytes;
  if (auto read = disk_.readChecked(at, info); !read)
    return base::Error{"the journal cannot be read: " + read.error().message};
  base::ByteReader in(info);
  const auto flags = in.get<std::uint32_t>();
  in.skip(32);
  offset_ = in.get<std::uint64_t>();
  const auto bytes = in.get<std::uint64_t>();
  if ((flags & 4) != 0) return {};
  if ((flags & 1) == 0)
    return base::Error{"the volume was not unmounted cleanly, and its journal is on another device"};
  if (bytes < kHeadBytes || !block::liesWithin(offset_, bytes, disk_.size()))
    return damaged("it lies outside the volume");
  size_ = bytes;
  return {};
}

base::Result<void> JournaledDisk::readHead() {
  constexpr std::uint32_t kSignature = 0x4A4E4C78;  // "JNLx"
  constexpr std::uint32_t kByteOrder = 0x12345678;
  std::array<std::byte, kHeadBytes> bytes;
  if (auto read = disk_.readChecked(offset_, bytes); !read)
    return base::Error{"the journal cannot be read: " + read.error().message};
  isLittleEndian_ = Fields(bytes, true).get<std::uint32_t>(0) == kSignature;
  const Fields head(bytes, isLittleEndian_);
  start_ = head.get<std::uint64_t>(8);
  end_ = head.get<std::uint64_t>(16);
  listBytes_ = head.get<std::uint32_t>(32);
  headBytes_ = head.get<std::uint32_t>(40);
  if (head.get<std::uint32_t>(0) != kSignature || head.get<std::uint32_t>(4) != kByteOrder ||
      head.get<std::uint32_t>(kHeadSumAt) != checksum(bytes, kHeadSumAt))
    return damaged("its head is not that of a journal");
  const auto isInside = [this](std::uint64_t at) { return at >= headBytes_ && at <= size_; };
  constexpr std::uint64_t kMostListBytes = 1 << 20;
  if (head.get<std::uint64_t>(24) != size_ || headBytes_ < 512 || !std::has_single_bit(headBytes_) ||
      !isInside(start_) || !isInside(end_) || listBytes_ < kListHeadBytes || listBytes_ > kMostListBytes ||
      listBytes_ > size_ - headBytes_)
    return damaged("its head contradicts itself");
  start_ = wrapped(start_);
  end_ = wrapped(end_);
  return {};
}

// Blocks follow their list in its order; the list's first entry is its own. The bytes of all of it.
base::Result<std::uint64_t> JournaledDisk::readBlockList(std::uint64_t at) {
  std::vector<std::byte> bytes(listBytes_);
  if (auto read = readJournal(at, bytes); !read) return read.error();
  const Fields list(bytes, isLittleEndian_);
  const std::size_t blocks = list.get<std::uint16_t>(2);
  const std::uint64_t used = list.get<std::uint32_t>(4);
  if (list.get<std::uint32_t>(kListSumAt) != checksum(std::span(bytes).first(kListHeadBytes), kListSumAt))
    return damaged("a list of blocks has a wrong checksum");
  if (blocks == 0 || (blocks + 1) * kBlockInfoBytes > listBytes_)
    return damaged("a list of blocks is too long");
  std::uint64_t passed = listBytes_;
  for (std::size_t i = 1; i < blocks; ++i) {
    constexpr std::uint64_t kSkipped = ~std::uint64_t{0};
    const std::size_t entry = kBlockInfoBytes * (i + 1);
    const auto number = list.get<std::uint64_t>(entry);
    const std::uint64_t size = list.get<std::uint32_t>(entry + 8);
    if (size == 0 || passed + size > used) return damaged("a block is longer than its list says");
    if (number != kSkipped) {
      if (number > disk_.size() / headBytes_ || !block::liesWithin(number * headBytes_, size, disk_.size()))
        return damaged("a block lies outside the volume");
      put(number * headBytes_, size, wrapped(at + passed));
    }
    passed += size;
  }
  if (passed != used || used > size_ - headBytes_) return damaged("a list of blocks contradicts itself");
  return used;
}

base::Result<void> JournaledDisk::readJournal(std::uint64_t at, std::span<std::byte> into) const {
  const auto first = into.first(static_cast<std::size_t>(std::min<std::uint64_t>(into.size(), size_ - at)));
  if (auto read = disk_.readChecked(offset_ + at, first); !read) return read;
  return disk_.readChecked(offset_ + headBytes_, into.subspan(first.size()));
}

// Later blocks go before earlier ones.
void JournaledDisk::put(std::uint64_t offset, std::uint64_t bytes, std::uint64_t journalOffset) {
  const std::uint64_t end = offset + bytes;
  auto at = pieces_.upper_bound(offset);
  if (at != pieces_.begin()) --at;
  while (at != pieces_.end() && at->first < end) {
    const auto [from, old] = *at;
    if (old.end <= offset) {
      ++at;
      continue;
    }
    at = pieces_.erase(at);
    if (from < offset) pieces_[from] = {offset, old.journalOffset};
    if (old.end > end) pieces_[end] = {old.end, wrapped(old.journalOffset + (end - from))};
  }
  pieces_[offset] = {end, journalOffset};
}

base::Result<void> JournaledDisk::readChecked(std::uint64_t offset, std::span<std::byte> into) const {
  if (auto read = disk_.readChecked(offset, into); !read) return read;
  const std::uint64_t end = offset + into.size();
  auto at = pieces_.upper_bound(offset);
  if (at != pieces_.begin()) --at;
  for (; at != pieces_.end() && at->first < end; ++at) {
    const std::uint64_t from = std::max(offset, at->first);
    const std::uint64_t to = std::min(end, at->second.end);
    if (from >= to) continue;
    const std::uint64_t source = wrapped(at->second.journalOffset + (from - at->first));
    if (auto read = readJournal(source, into.subspan(from - offset, to - from)); !read) return read;
  }
  return {};
}

}  // namespace image::hfs
