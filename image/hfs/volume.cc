#include "image/hfs/volume.h"

#include <algorithm>
#include <limits>
#include <string>

#include "image/block/zeros.h"
#include "image/hfs/nanoseconds.h"

namespace image::hfs {
namespace {

constexpr std::uint64_t kHeaderOffset = 1024;
constexpr std::uint32_t kSmallestBlockBytes = 4096;
constexpr std::uint32_t kFreeBlocks = 64;
constexpr BTreeShape kExtentsShape{.nodeBytes = 4096, .maxKeyLength = 10, .attributes = 2};

constexpr BTreeShape kAttributesShape{.nodeBytes = 8192, .maxKeyLength = 266, .attributes = 6};

BTreeShape catalogShape(NameOrder order) {
  return {.nodeBytes = 8192,
          .maxKeyLength = 516,
          .keyCompareType = static_cast<std::uint8_t>(order == NameOrder::binary ? 0xBC : 0xCF),
          .attributes = 6};
}

// The smallest block size with which the data still has 32-bit block numbers to spare.
std::uint32_t chooseBlockBytes(const Tree& tree) {
  std::uint64_t bytes = 0;
  for (const Node& node : tree.nodes()) bytes += node.size + kSmallestBlockBytes;
  std::uint32_t blockBytes = kSmallestBlockBytes;
  while (blockBytes < 1u << 20 && bytes / blockBytes >= 1ull << 31) blockBytes *= 2;
  return blockBytes;
}

}  // namespace

Volume::Volume(Tree& tree, const ForkSource& forks, const VolumeOptions& options, std::uint32_t blockBytes)
    : tree_(tree),
      forks_(forks),
      options_(options),
      blockBytes_(blockBytes),
      catalogRecords_(tree, blockBytes),
      catalog_(catalogRecords_, catalogShape(tree.order())),
      attributeRecords_(tree, blockBytes),
      attributes_(attributeRecords_, kAttributesShape),
      extents_(noRecords_, kExtentsShape) {}

base::Result<std::unique_ptr<Volume>> Volume::lay(Tree& tree, const ForkSource& forks,
                                                  const VolumeOptions& options) {
  std::unique_ptr<Volume> volume(new Volume(tree, forks, options, chooseBlockBytes(tree)));
  volume->countItems();
  if (auto placed = volume->placeEverything(tree); !placed) return placed.error();
  return volume;
}

void Volume::countItems() {
  for (const Node& node : tree_.nodes()) ++(node.isFolder() ? folderCount_ : fileCount_);
  --folderCount_;  // the root is not counted
}

Fork Volume::placeFork(std::uint64_t bytes) {
  const std::uint64_t blocks = (bytes + blockBytes_ - 1) / blockBytes_;
  const Fork fork{bytes, static_cast<std::uint32_t>(nextBlock_), static_cast<std::uint32_t>(blocks)};
  nextBlock_ += blocks;
  return fork;
}

base::Result<void> Volume::placeEverything(Tree& tree) {
  std::uint64_t blocks = (kHeaderOffset + 512 + blockBytes_ - 1) / blockBytes_ + kFreeBlocks + 1;
  const auto count = [&](std::uint64_t bytes) { blocks += (bytes + blockBytes_ - 1) / blockBytes_; };
  count(extents_.size());
  count(catalog_.size());
  count(attributes_.size());
  count(nanosecondsBytes(tree));
  for (const auto& value : attributeRecords_.longValues()) count(value.size);
  for (const Node& node : tree.nodes()) count(node.size);
  std::uint64_t mapBlocks = 1;
  while (mapBlocks * blockBytes_ * 8 < blocks + mapBlocks) ++mapBlocks;
  blocks += mapBlocks;
  if (blocks > std::numeric_limits<std::uint32_t>::max())
    return base::Error{"more data than an HFS+ volume can hold"};
  totalBlocks_ = static_cast<std::uint32_t>(blocks);

  nextBlock_ = (kHeaderOffset + 512 + blockBytes_ - 1) / blockBytes_;
  allocationFork_ = placeFork(mapBlocks * blockBytes_);
  extentsFork_ = placeFork(extents_.size());
  catalogFork_ = placeFork(catalog_.size());
  attributesFork_ = placeFork(attributes_.size());
  for (auto& value : attributeRecords_.longValues()) value.firstBlock = placeFork(value.size).firstBlock;
  startupFork_ = placeFork(nanosecondsBytes(tree));
  firstDataBlock_ = nextBlock_;
  for (NodeIndex node = 0; node < tree.nodes().size(); ++node) {
    if (!tree.nodes()[node].hasData()) continue;
    tree.place(node, placeFork(tree.nodes()[node].size).firstBlock);
    dataNodes_.push_back(node);
  }
  return {};
}

std::array<std::byte, 512> Volume::makeHeader() const {
  const bool binary = tree_.order() == NameOrder::binary;
  constexpr std::uint32_t kUnmountedCleanly = 0x100;
  constexpr std::uint32_t kImplementation = 0x31302E30;  // "10.0"
  const std::uint32_t now = volumeDate(options_.now);
  std::vector<std::byte> bytes;
  base::ByteWriter out(bytes);
  out.put(static_cast<std::uint16_t>(binary ? 0x4858 : 0x482B))
      .put(static_cast<std::uint16_t>(binary ? 5 : 4));
  out.put(kUnmountedCleanly).put(kImplementation).put(std::uint32_t{0});
  out.put(now).put(now).put(std::uint32_t{0}).put(now);
  out.put(fileCount_).put(folderCount_);
  out.put(blockBytes_).put(totalBlocks_).put(kFreeBlocks).put(static_cast<std::uint32_t>(nextBlock_));
  out.put(blockBytes_ * 16).put(blockBytes_ * 16).put(tree_.nextCatalogID());
  out.put(std::uint32_t{1}).put(std::uint64_t{1});
  out.zeros(24).put(options_.identifier);
  putFork(allocationFork_, static_cast<std::uint32_t>(allocationFork_.size), out);
  putFork(extentsFork_, extents_.nodeBytes(), out);
  putFork(catalogFork_, catalog_.nodeBytes(), out);
  putFork(attributesFork_, attributes_.nodeBytes(), out);
  putFork(startupFork_, blockBytes_, out);
  std::array<std::byte, 512> header{};
  std::ranges::copy(bytes, header.begin());
  return header;
}

class Volume::Reader : public block::ContentReader {
 public:
  explicit Reader(const Volume& volume)
      : volume_(volume), header_(volume.makeHeader()), forks_(volume.forks_.openReader()) {}

  base::Result<block::Filled> read(std::uint64_t offset, std::span<std::byte> into) override {
    const std::uint64_t dataBegin = offsetOf(volume_.firstDataBlock_);
    const std::uint64_t dataEnd = volume_.nextBlock_ * volume_.blockBytes_;
    if (offset >= dataBegin && offset + into.size() <= dataEnd) return readData(offset, into);
    block::fillZeros(into);
    fillMetadata(offset, into);
    const std::uint64_t from = std::max(offset, dataBegin);
    const std::uint64_t to = std::min(offset + into.size(), dataEnd);
    if (from >= to) return block::Filled::data;
    auto filled = readData(from, into.subspan(from - offset, to - from));
    if (!filled) return filled;
    return block::Filled::data;
  }

 private:
  std::uint64_t offsetOf(std::uint64_t block) const { return block * volume_.blockBytes_; }

  void fillMetadata(std::uint64_t offset, std::span<std::byte> into) {
    block::copyOverlap(header_, kHeaderOffset, into, offset);
    block::copyOverlap(header_, volume_.size() - kHeaderOffset, into, offset);
    fillAllocation(offset, into);
    fillTree(volume_.extents_, volume_.extentsFork_, offset, into);
    fillTree(volume_.catalog_, volume_.catalogFork_, offset, into);
    fillTree(volume_.attributes_, volume_.attributesFork_, offset, into);
    fillLongValues(offset, into);
    fillNanoseconds(offset, into);
  }

  void fillNanoseconds(std::uint64_t offset, std::span<std::byte> into) {
    const std::uint64_t begin = offsetOf(volume_.startupFork_.firstBlock);
    const std::uint64_t from = std::max(offset, begin);
    const std::uint64_t to = std::min(offset + into.size(), begin + volume_.startupFork_.size);
    if (from < to) readNanoseconds(volume_.tree_, from - begin, into.subspan(from - offset, to - from));
  }

  void fillLongValues(std::uint64_t offset, std::span<std::byte> into) {
    for (const auto& value : volume_.attributeRecords_.longValues()) {
      const std::uint64_t begin = offsetOf(value.firstBlock);
      const std::uint64_t from = std::max(offset, begin);
      const std::uint64_t to = std::min(offset + into.size(), begin + value.size);
      if (from < to)
        volume_.attributeRecords_.readValue(value.at, from - begin, into.subspan(from - offset, to - from));
    }
  }

  // All blocks up to the free ones are used, and the last one, which holds the alternate header.
  void fillAllocation(std::uint64_t offset, std::span<std::byte> into) {
    const std::uint64_t begin = offsetOf(volume_.allocationFork_.firstBlock);
    const std::uint64_t from = std::max(offset, begin);
    const std::uint64_t to = std::min(offset + into.size(), begin + volume_.allocationFork_.size);
    for (std::uint64_t at = from; at < to; ++at) into[at - offset] = allocationByte((at - begin) * 8);
  }
  std::byte allocationByte(std::uint64_t firstBlock) const {
    if (firstBlock + 8 <= volume_.nextBlock_) return std::byte{0xFF};
    unsigned bits = 0;
    for (std::uint64_t block = firstBlock; block < firstBlock + 8; ++block)
      bits = bits << 1 | (block < volume_.nextBlock_ || block + 1 == volume_.totalBlocks_ ? 1u : 0u);
    return static_cast<std::byte>(bits);
  }

  void fillTree(const BTreeFile& tree, const Fork& fork, std::uint64_t offset, std::span<std::byte> into) {
    const std::uint64_t begin = offsetOf(fork.firstBlock);
    const std::uint64_t from = std::max(offset, begin);
    const std::uint64_t to = std::min(offset + into.size(), begin + tree.size());
    if (from >= to) return;
    node_.resize(tree.nodeBytes());
    for (std::uint64_t node = (from - begin) / tree.nodeBytes(); begin + node * tree.nodeBytes() < to;
         ++node) {
      tree.makeNode(static_cast<std::uint32_t>(node), node_);
      block::copyOverlap(node_, begin + node * tree.nodeBytes(), into, offset);
    }
  }

  // The zeros in front of the first data are filled in only once there is some.
  base::Result<block::Filled> readData(std::uint64_t offset, std::span<std::byte> into) {
    bool data = false;
    std::size_t done = 0;
    while (done < into.size()) {
      const Piece piece = pieceAt(offset + done, into.size() - done);
      auto filled = piece.node == kNoNode
                        ? block::Filled::zeros
                        : forks_->read(piece.node, piece.offset, into.subspan(done, piece.bytes));
      if (!filled) return filled;
      if (*filled == block::Filled::data && !data) block::fillZeros(into.first(done));
      data |= *filled == block::Filled::data;
      if (*filled == block::Filled::zeros && data) block::fillZeros(into.subspan(done, piece.bytes));
      done += piece.bytes;
    }
    return data ? block::Filled::data : block::Filled::zeros;
  }

  // What one place of the data area shows: part of a node's data, or (kNoNode) the rest of its last block.
  struct Piece {
    NodeIndex node;
    std::uint64_t offset;
    std::size_t bytes;
  };
  Piece pieceAt(std::uint64_t offset, std::size_t most) const {
    const auto& nodes = volume_.tree_.nodes();
    const auto firstBlock = [&](NodeIndex node) { return nodes[node].first; };
    const auto block = static_cast<std::uint32_t>(offset / volume_.blockBytes_);
    const NodeIndex node = std::ranges::upper_bound(volume_.dataNodes_, block, {}, firstBlock)[-1];
    const std::uint64_t inside = offset - offsetOf(nodes[node].first);
    if (inside < nodes[node].size)
      return {node, inside,
              static_cast<std::size_t>(std::min<std::uint64_t>(most, nodes[node].size - inside))};
    const std::uint64_t padding = volume_.blockBytes_ - offset % volume_.blockBytes_;
    return {kNoNode, 0, static_cast<std::size_t>(std::min<std::uint64_t>(most, padding))};
  }

  const Volume& volume_;
  std::array<std::byte, 512> header_;
  std::unique_ptr<ForkReader> forks_;
  std::vector<std::byte> node_;
};

std::unique_ptr<block::ContentReader> Volume::openReader() const { return std::make_unique<Reader>(*this); }

}  // namespace image::hfs
