#include "image/hfs/volume_view.h"

#include <algorithm>
#include <bit>
#include <string>

namespace image::hfs {
namespace {

constexpr std::size_t kDescriptorBytes = 14;
constexpr std::int8_t kHeaderNode = 1;
constexpr std::int8_t kMapNode = 2;

template <std::unsigned_integral T>
T loadAt(std::span<const std::byte> bytes, std::size_t at) {
  return base::loadBigEndian<T>(bytes.data() + at);
}

std::uint32_t number(std::span<const std::byte> key, std::size_t at) {
  return key.size() < at + 4 ? 0 : loadAt<std::uint32_t>(key, at);
}

}  // namespace

KeyName::KeyName(std::span<const std::byte> key, std::size_t at) {
  if (key.size() < at + 2) return;
  size_ = std::min<std::size_t>({loadAt<std::uint16_t>(key, at), (key.size() - at - 2) / 2, units_.size()});
  for (std::size_t i = 0; i < size_; ++i)
    units_[i] = static_cast<char16_t>(loadAt<std::uint16_t>(key, at + 2 + 2 * i));
}

ForkRecord getFork(base::ByteReader& in) {
  ForkRecord fork;
  fork.size = in.get<std::uint64_t>();
  in.skip(4);
  fork.blocks = in.get<std::uint32_t>();
  for (int i = 0; i < 8; ++i) {
    const auto first = in.get<std::uint32_t>();
    const auto blocks = in.get<std::uint32_t>();
    if (blocks != 0) fork.extents.push_back({first, blocks});
  }
  return fork;
}

base::Result<VolumeHeader> VolumeHeader::decode(std::span<const std::byte> bytes, std::uint64_t volumeBytes) {
  base::ByteReader in(bytes);
  VolumeHeader header;
  const auto signature = in.get<std::uint16_t>();
  const auto version = in.get<std::uint16_t>();
  const bool isPlus = signature == 0x482B && version == 4;
  const bool isX = signature == 0x4858 && version == 5;
  if (!isPlus && !isX) return base::Error{"the volume header is not that of an HFS+ volume"};
  header.isX = isX;
  header.attributes = in.get<std::uint32_t>();
  header.lastMountedVersion = in.get<std::uint32_t>();
  header.journalInfoBlock = in.get<std::uint32_t>();
  header.created = in.get<std::uint32_t>();
  in.skip(3 * 4);
  header.fileCount = in.get<std::uint32_t>();
  header.folderCount = in.get<std::uint32_t>();
  header.blockBytes = in.get<std::uint32_t>();
  header.totalBlocks = in.get<std::uint32_t>();
  header.freeBlocks = in.get<std::uint32_t>();
  in.skip(4 + 4 + 4);
  header.nextCatalogID = in.get<std::uint32_t>();
  in.skip(4 + 8 + 32);
  header.allocation = getFork(in);
  header.extentsOverflow = getFork(in);
  header.catalog = getFork(in);
  header.attributesFile = getFork(in);
  header.startupFile = getFork(in);
  if (!in.ok() || header.blockBytes < 512 || !std::has_single_bit(header.blockBytes) ||
      header.volumeBytes() > volumeBytes || header.freeBlocks > header.totalBlocks)
    return base::Error{"the volume header contradicts itself"};
  return header;
}

ForkMap::ForkMap(std::uint32_t blockBytes, std::vector<Extent> extents)
    : blockBytes_(blockBytes), extents_(std::move(extents)) {
  for (const Extent& extent : extents_) {
    starts_.push_back(bytes_);
    bytes_ += std::uint64_t{extent.blocks} * blockBytes_;
  }
}

ForkMap::Part ForkMap::partAt(std::uint64_t offset) const {
  const auto at = static_cast<std::size_t>(std::ranges::upper_bound(starts_, offset) - starts_.begin()) - 1;
  const std::uint64_t inside = offset - starts_[at];
  return {std::uint64_t{extents_[at].firstBlock} * blockBytes_ + inside,
          std::uint64_t{extents_[at].blocks} * blockBytes_ - inside};
}

ForkView::ForkView(const base::RandomAccess& volume, std::uint32_t blockBytes, std::uint64_t size,
                   std::vector<Extent> extents)
    : volume_(volume), size_(size), map_(blockBytes, std::move(extents)) {}

bool ForkView::read(std::uint64_t offset, std::span<std::byte> into) const {
  const std::uint64_t whole = std::min(size_, map_.bytes());
  if (offset > whole || into.size() > whole - offset) return false;
  while (!into.empty()) {
    const ForkMap::Part at = map_.partAt(offset);
    const auto part = into.first(static_cast<std::size_t>(std::min<std::uint64_t>(into.size(), at.bytes)));
    if (!volume_.read(at.volumeOffset, part)) return false;
    into = into.subspan(part.size());
    offset += part.size();
  }
  return true;
}

RecordView splitRecord(std::span<const std::byte> record) {
  if (record.size() < 2) return {};
  const std::size_t length = 2 + std::size_t{loadAt<std::uint16_t>(record, 0)};
  const std::size_t data = length + (length & 1);
  if (data > record.size()) return {};
  return {record.first(length), record.subspan(data)};
}

CatalogKey catalogKey(std::span<const std::byte> key) { return {number(key, 2), KeyName(key, 6)}; }

AttributeKey attributeKey(std::span<const std::byte> key) {
  return {number(key, 4), number(key, 8), KeyName(key, 12)};
}

ExtentsKey extentsKey(std::span<const std::byte> key) {
  const auto fork = key.size() < 3 ? std::uint8_t{0} : std::to_integer<std::uint8_t>(key[2]);
  return {number(key, 4), fork, number(key, 8)};
}

KeyOrder catalogOrder(NameOrder order) {
  return [order](std::span<const std::byte> a, std::span<const std::byte> b) {
    if (const auto parents = number(a, 2) <=> number(b, 2); parents != 0) return parents;
    return compareNames(KeyName(a, 6).text(), KeyName(b, 6).text(), order);
  };
}

// Key: length, fork type (one byte, one of padding), file, first block.
KeyOrder extentsOrder() {
  return [](std::span<const std::byte> a, std::span<const std::byte> b) {
    if (const auto files = number(a, 4) <=> number(b, 4); files != 0) return files;
    if (a.size() < 12 || b.size() < 12) return a.size() <=> b.size();
    if (const auto forks = std::to_integer<int>(a[2]) <=> std::to_integer<int>(b[2]); forks != 0)
      return forks;
    return number(a, 8) <=> number(b, 8);
  };
}

// Key: length, padding, file, first block, name.
KeyOrder attributesOrder() {
  return [](std::span<const std::byte> a, std::span<const std::byte> b) {
    if (const auto files = number(a, 4) <=> number(b, 4); files != 0) return files;
    if (const auto names = compareNames(KeyName(a, 12).text(), KeyName(b, 12).text(), NameOrder::binary);
        names != 0)
      return names;
    return number(a, 8) <=> number(b, 8);
  };
}

base::Error BTreeView::damaged(std::string_view how, std::uint32_t node) const {
  return {"the " + what_ + " is damaged: " + std::string(how) + " (node " + std::to_string(node) + ")"};
}

base::Result<BTreeView> BTreeView::open(const base::RandomAccess& fork, std::string what) {
  constexpr std::size_t kHeadBytes = kDescriptorBytes + 106;
  BTreeView tree(fork, std::move(what));
  std::array<std::byte, kHeadBytes> head;
  if (fork.size() < 512 || !fork.read(0, head)) return tree.damaged("its header cannot be read", 0);
  base::ByteReader in(head);
  in.skip(8);
  const bool isHeader = static_cast<std::int8_t>(in.get<std::uint8_t>()) == kHeaderNode;
  in.skip(5);
  tree.depth_ = in.get<std::uint16_t>();
  tree.root_ = in.get<std::uint32_t>();
  tree.leafRecords_ = in.get<std::uint32_t>();
  tree.firstLeaf_ = in.get<std::uint32_t>();
  tree.lastLeaf_ = in.get<std::uint32_t>();
  tree.nodeBytes_ = in.get<std::uint16_t>();
  tree.maxKeyLength_ = in.get<std::uint16_t>();
  tree.nodeCount_ = in.get<std::uint32_t>();
  tree.freeNodes_ = in.get<std::uint32_t>();
  in.skip(2 + 4 + 1);
  tree.keyCompareType_ = in.get<std::uint8_t>();
  // Who grows the file by blocks smaller than a node may leave it with a part of one at its end.
  const bool sound = isHeader && tree.nodeBytes_ >= 512 && std::has_single_bit(tree.nodeBytes_) &&
                     tree.nodeCount_ != 0 && fork.size() / tree.nodeBytes_ == tree.nodeCount_ &&
                     tree.freeNodes_ < tree.nodeCount_ && tree.depth_ <= 16;
  if (!sound) return tree.damaged("its header contradicts itself", 0);
  return tree;
}

base::Result<NodeView> BTreeView::node(std::uint32_t number) const {
  NodeView node{.bytes = std::vector<std::byte>(nodeBytes_)};
  if (number >= nodeCount_ || !fork_->read(std::uint64_t{number} * nodeBytes_, node.bytes))
    return damaged("a node cannot be read", number);
  base::ByteReader in(node.bytes);
  node.next = in.get<std::uint32_t>();
  node.previous = in.get<std::uint32_t>();
  node.kind = static_cast<std::int8_t>(in.get<std::uint8_t>());
  node.height = in.get<std::uint8_t>();
  const std::size_t count = in.get<std::uint16_t>();
  if (2 * (count + 1) > nodeBytes_ - kDescriptorBytes) return damaged("a node has too many records", number);
  const auto offset = [&](std::size_t i) -> std::size_t {
    return loadAt<std::uint16_t>(node.bytes, nodeBytes_ - 2 * (i + 1));
  };
  if (offset(0) != kDescriptorBytes) return damaged("a node's records do not begin behind its head", number);
  for (std::size_t i = 0; i < count; ++i) {
    if (offset(i) >= offset(i + 1) || offset(i + 1) > nodeBytes_ - 2 * (count + 1))
      return damaged("a node's records overlap", number);
    node.records.push_back(
        std::span<const std::byte>(node.bytes).subspan(offset(i), offset(i + 1) - offset(i)));
  }
  return node;
}

// One pass over a tree, level by level from the root.
class BTreeView::Walk {
 public:
  Walk(const BTreeView& tree, const KeyOrder& order, const Visitor& visit)
      : tree_(tree), order_(order), visit_(visit), seen_(tree.nodeCount_) {
    seen_[0] = true;
  }

  base::Result<void> run() {
    if (tree_.depth_ == 0) {
      if (tree_.root_ != 0 || tree_.leafRecords_ != 0) return tree_.damaged("an empty tree has records", 0);
      return tree_.checkMap(seen_);
    }
    level_.push_back({tree_.root_, {}});
    for (height_ = static_cast<std::uint8_t>(tree_.depth_); height_ > 0; --height_) {
      if (height_ == 1 && (level_.front().node != tree_.firstLeaf_ || level_.back().node != tree_.lastLeaf_))
        return tree_.damaged("its header names other leaves as the first and the last", 0);
      if (auto passed = passLevel(); !passed) return passed;
    }
    if (leafRecords_ != tree_.leafRecords_)
      return tree_.damaged("its header counts other records than there are", 0);
    return tree_.checkMap(seen_);
  }

 private:
  struct Child {
    std::uint32_t node;
    std::vector<std::byte> firstKey;
  };

  base::Result<void> passLevel() {
    below_.clear();
    lastKey_.clear();
    for (std::size_t i = 0; i < level_.size(); ++i)
      if (auto passed = passNode(i); !passed) return passed;
    level_ = std::move(below_);
    return {};
  }

  base::Result<void> passNode(std::size_t ordinal) {
    const auto& [at, firstKey] = level_[ordinal];
    if (at >= tree_.nodeCount_ || seen_[at])
      return tree_.damaged("a node is reached twice or does not exist", at);
    seen_[at] = true;
    const auto node = tree_.node(at);
    if (!node) return node.error();
    if (node->kind != (height_ == 1 ? kLeafNode : kIndexNode) || node->height != height_ ||
        node->records.empty())
      return tree_.damaged("a node is of the wrong kind or height, or empty", at);
    const std::uint32_t previous = ordinal == 0 ? 0 : level_[ordinal - 1].node;
    const std::uint32_t next = ordinal + 1 == level_.size() ? 0 : level_[ordinal + 1].node;
    if (node->previous != previous || node->next != next)
      return tree_.damaged("a node's neighbours are not those that its parents name", at);
    const auto first = splitRecord(node->records.front());
    if (!firstKey.empty() && !std::ranges::equal(firstKey, first.key))
      return tree_.damaged("a node does not begin with the key that its parent has for it", at);
    for (const auto bytes : node->records)
      if (auto passed = passRecord(at, splitRecord(bytes)); !passed) return passed;
    return {};
  }

  base::Result<void> passRecord(std::uint32_t at, const RecordView& record) {
    if (record.key.size() < 8 || record.key.size() > tree_.maxKeyLength_ + 2u)
      return tree_.damaged("a key has a wrong length", at);
    if (!lastKey_.empty() && order_(lastKey_, record.key) >= 0)
      return tree_.damaged("keys are out of order", at);
    lastKey_.assign(record.key.begin(), record.key.end());
    if (height_ == 1) {
      ++leafRecords_;
      return visit_(record);
    }
    if (record.data.size() < 4) return tree_.damaged("an index record is too short", at);
    below_.push_back({loadAt<std::uint32_t>(record.data, 0), lastKey_});
    return {};
  }

  const BTreeView& tree_;
  const KeyOrder& order_;
  const Visitor& visit_;
  std::vector<bool> seen_;
  std::uint8_t height_ = 0;
  std::vector<Child> level_;
  std::vector<Child> below_;
  std::vector<std::byte> lastKey_;
  std::uint32_t leafRecords_ = 0;
};

base::Result<void> BTreeView::walk(const KeyOrder& order, const Visitor& visit) const {
  return Walk(*this, order, visit).run();
}

// The map records of the header node and of the map nodes after it have a bit for each node.
base::Result<void> BTreeView::checkMap(std::vector<bool> seen) const {
  std::vector<bool> used;
  std::uint32_t at = 0;
  do {
    seen[at] = true;
    const auto node = this->node(at);
    if (!node) return node.error();
    const std::size_t record = at == 0 ? 2 : 0;
    if (node->records.size() <= record || (at != 0 && node->kind != kMapNode))
      return damaged("its map is damaged", at);
    for (const std::byte b : node->records[record])
      for (int bit = 7; bit >= 0; --bit) used.push_back((b >> bit & std::byte{1}) != std::byte{0});
    at = node->next;
  } while (at != 0 && at < nodeCount_ && !seen[at]);
  if (at != 0 || used.size() < nodeCount_) return damaged("its map is damaged", at);
  used.resize(nodeCount_);
  if (used != seen) return damaged("its map does not name the nodes that are in use", 0);
  if (static_cast<std::uint32_t>(std::ranges::count(seen, false)) != freeNodes_)
    return damaged("its header counts other free nodes than there are", 0);
  return {};
}

}  // namespace image::hfs
