#include "image/hfs/btree.h"

#include <algorithm>

#include "image/block/zeros.h"

namespace image::hfs {
namespace {

constexpr std::size_t kDescriptorBytes = 14;
constexpr std::size_t kHeaderRecordBytes = 106;
constexpr std::size_t kUserDataBytes = 128;
constexpr std::size_t kHeaderMapOffset = kDescriptorBytes + kHeaderRecordBytes + kUserDataBytes;
constexpr std::size_t kHeaderTailBytes = 4 * 2;
// A map node leaves two bytes free before its two offsets.
constexpr std::size_t kMapNodeOverhead = kDescriptorBytes + 2 + 2 * 2;
constexpr std::size_t kChildNumberBytes = 4;

enum class NodeKind : std::uint8_t { index = 0, header = 1, map = 2, leaf = 0xFF };

struct Links {
  std::uint32_t next = 0;
  std::uint32_t previous = 0;
};

std::size_t even(std::size_t bytes) { return bytes + (bytes & 1); }

// Lays records out in one node: descriptor, records from the front, their offsets from the back.
class NodeLayout {
 public:
  NodeLayout(std::span<std::byte> node, NodeKind kind, std::uint8_t height, Links links) : node_(node) {
    block::fillZeros(node);
    base::storeBigEndian(node.data(), links.next);
    base::storeBigEndian(node.data() + 4, links.previous);
    base::storeBigEndian(node.data() + 8, static_cast<std::uint8_t>(kind));
    base::storeBigEndian(node.data() + 9, height);
    storeOffset();
  }

  void add(std::span<const std::byte> record) {
    std::ranges::copy(record, node_.begin() + static_cast<std::ptrdiff_t>(used_));
    used_ += even(record.size());
    ++count_;
    base::storeBigEndian(node_.data() + 10, static_cast<std::uint16_t>(count_));
    storeOffset();
  }

 private:
  void storeOffset() {
    base::storeBigEndian(node_.data() + node_.size() - 2 * (count_ + 1), static_cast<std::uint16_t>(used_));
  }

  std::span<std::byte> node_;
  std::size_t used_ = kDescriptorBytes;
  std::size_t count_ = 0;
};

// How many bytes of records with their offsets fit beside the descriptor and the free-space offset.
std::size_t recordRoom(std::size_t nodeBytes) { return nodeBytes - kDescriptorBytes - 2; }

// Sets the bits of the used nodes in one map record that begins with the node `first`.
void setUsed(std::span<std::byte> map, std::uint64_t first, std::uint64_t used) {
  const std::uint64_t bits = used > first ? std::min<std::uint64_t>(used - first, map.size() * 8) : 0;
  std::ranges::fill(map.first(bits / 8), std::byte{0xFF});
  if (bits % 8 != 0) map[bits / 8] = static_cast<std::byte>(0xFF00 >> (bits % 8));
}

}  // namespace

BTreeFile::BTreeFile(const RecordSource& records, const BTreeShape& shape)
    : records_(records), shape_(shape) {
  packLeaves();
  packIndexLevels();
  countNodes();
}

void BTreeFile::packLeaves() {
  std::size_t left = 0;
  for (auto at = records_.begin(); at != records_.end(); at = records_.next(at)) {
    const auto sizes = records_.sizes(at);
    const std::size_t needed = even(sizes.key + sizes.data) + 2;
    if (needed > left) {
      leafStarts_.push_back(at);
      left = recordRoom(shape_.nodeBytes);
    }
    left -= needed;
    ++recordCount_;
  }
}

void BTreeFile::packIndexLevels() {
  for (std::uint32_t below = leafCount(); below > 1;
       below = static_cast<std::uint32_t>(levels_.back().size())) {
    std::vector<std::uint32_t> starts;
    std::size_t left = 0;
    for (std::uint32_t child = 0; child < below; ++child) {
      const std::uint32_t leaf = levels_.empty() ? child : firstLeafUnder(levels_.size() - 1, child);
      const std::size_t needed = even(records_.sizes(leafStarts_[leaf]).key) + kChildNumberBytes + 2;
      if (needed > left) {
        starts.push_back(child);
        left = recordRoom(shape_.nodeBytes);
      }
      left -= needed;
    }
    levels_.push_back(std::move(starts));
  }
}

void BTreeFile::countNodes() {
  std::uint64_t nodes = 1 + leafCount();
  for (const auto& level : levels_) nodes += level.size();
  const std::uint64_t inHeader = (shape_.nodeBytes - kHeaderMapOffset - kHeaderTailBytes) * 8;
  const std::uint64_t inMapNode = (shape_.nodeBytes - kMapNodeOverhead) * 8;
  while (inHeader + mapNodes_ * inMapNode < nodes + mapNodes_) ++mapNodes_;
  nodeCount_ = static_cast<std::uint32_t>(nodes + mapNodes_);
}

std::uint32_t BTreeFile::firstLeafUnder(std::size_t level, std::uint32_t ordinal) const {
  for (std::size_t at = level + 1; at-- > 0;) ordinal = levels_[at][ordinal];
  return ordinal;
}

// Level 0 is the leaves.
std::uint32_t BTreeFile::nodesIn(std::size_t level) const {
  return level == 0 ? leafCount() : static_cast<std::uint32_t>(levels_[level - 1].size());
}

std::uint32_t BTreeFile::firstNodeOf(std::size_t level) const {
  std::uint32_t first = 1 + mapNodes_;
  for (std::size_t below = 0; below < level; ++below) first += nodesIn(below);
  return first;
}

void BTreeFile::makeNode(std::uint32_t node, std::span<std::byte> into) const {
  if (node == 0) return makeHeader(into);
  if (node <= mapNodes_) return makeMap(node, into);
  std::size_t level = 0;
  while (node >= firstNodeOf(level + 1)) ++level;
  const std::uint32_t ordinal = node - firstNodeOf(level);
  return level == 0 ? makeLeaf(ordinal, into) : makeIndex(level, ordinal, into);
}

void BTreeFile::makeHeader(std::span<std::byte> into) const {
  const bool empty = leafCount() == 0;
  std::vector<std::byte> record;
  base::ByteWriter(record)
      .put(static_cast<std::uint16_t>(empty ? 0 : levels_.size() + 1))
      .put(empty ? 0 : nodeCount_ - 1)
      .put(recordCount_)
      .put(empty ? 0 : firstNodeOf(0))
      .put(empty ? 0 : firstNodeOf(1) - 1)
      .put(static_cast<std::uint16_t>(shape_.nodeBytes))
      .put(shape_.maxKeyLength)
      .put(nodeCount_)
      .put(std::uint32_t{0})
      .put(std::uint16_t{0})
      .put(shape_.nodeBytes)
      .put(std::uint8_t{0})
      .put(shape_.keyCompareType)
      .put(shape_.attributes)
      .zeros(64);
  NodeLayout layout(into, NodeKind::header, 0, {.next = mapNodes_ == 0 ? 0u : 1u});
  layout.add(record);
  layout.add(std::vector<std::byte>(kUserDataBytes));
  std::vector<std::byte> map(shape_.nodeBytes - kHeaderMapOffset - kHeaderTailBytes);
  setUsed(map, 0, nodeCount_);
  layout.add(map);
}

void BTreeFile::makeMap(std::uint32_t node, std::span<std::byte> into) const {
  NodeLayout layout(into, NodeKind::map, 0, {.next = node == mapNodes_ ? 0 : node + 1, .previous = node - 1});
  std::vector<std::byte> map(shape_.nodeBytes - kMapNodeOverhead);
  const std::uint64_t inHeader = (shape_.nodeBytes - kHeaderMapOffset - kHeaderTailBytes) * 8;
  setUsed(map, inHeader + (node - 1) * std::uint64_t{map.size()} * 8, nodeCount_);
  layout.add(map);
}

void BTreeFile::makeLeaf(std::uint32_t leaf, std::span<std::byte> into) const {
  const std::uint32_t node = firstNodeOf(0) + leaf;
  const bool last = leaf + 1 == leafCount();
  NodeLayout layout(into, NodeKind::leaf, 1,
                    {.next = last ? 0 : node + 1, .previous = leaf == 0 ? 0 : node - 1});
  const Position end = last ? records_.end() : leafStarts_[leaf + 1];
  std::vector<std::byte> record;
  for (Position at = leafStarts_[leaf]; at != end; at = records_.next(at)) {
    record.clear();
    base::ByteWriter out(record);
    records_.putKey(at, out);
    records_.putData(at, out);
    layout.add(record);
  }
}

void BTreeFile::makeIndex(std::size_t level, std::uint32_t ordinal, std::span<std::byte> into) const {
  const auto& starts = levels_[level - 1];
  const std::uint32_t node = firstNodeOf(level) + ordinal;
  const bool last = ordinal + 1 == starts.size();
  NodeLayout layout(into, NodeKind::index, static_cast<std::uint8_t>(level + 1),
                    {.next = last ? 0 : node + 1, .previous = ordinal == 0 ? 0 : node - 1});
  const std::uint32_t end = last ? nodesIn(level - 1) : starts[ordinal + 1];
  std::vector<std::byte> record;
  for (std::uint32_t child = starts[ordinal]; child < end; ++child) {
    const std::uint32_t leaf = level == 1 ? child : firstLeafUnder(level - 2, child);
    record.clear();
    base::ByteWriter out(record);
    records_.putKey(leafStarts_[leaf], out);
    out.put(firstNodeOf(level - 1) + child);
    layout.add(record);
  }
}

}  // namespace image::hfs
