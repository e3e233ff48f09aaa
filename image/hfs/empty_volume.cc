#include "image/hfs/empty_volume.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "base/byte_order.h"
#include "image/hfs/btree.h"
#include "image/hfs/catalog.h"
#include "image/hfs/tree.h"

namespace image::hfs {
namespace {

constexpr std::uint32_t kBlockBytes = 4096;
constexpr std::uint64_t kHeaderOffset = 1024;
constexpr std::uint32_t kUnmountedCleanly = 0x100;
constexpr std::uint32_t kJournaled = 0x2000;
constexpr BTreeShape kExtentsShape{.nodeBytes = 4096, .maxKeyLength = 10, .attributes = 2};
constexpr BTreeShape kAttributesShape{.nodeBytes = 8192, .maxKeyLength = 266, .attributes = 6};
constexpr BTreeShape kCatalogShape{
    .nodeBytes = 8192, .maxKeyLength = 516, .keyCompareType = 0xCF, .attributes = 6};
// How much the special files grow by.
constexpr std::uint32_t kClumpBytes = 1u << 20;

// 8 MiB for each begun 100 GiB, less on small volumes.
std::uint64_t journalBytes(std::uint64_t volumeBytes) {
  if (volumeBytes < 128u << 20) return 512u << 10;
  return std::min<std::uint64_t>((volumeBytes / (100ull << 30) + 1) * (8u << 20), 512u << 20);
}

// "Journal" in TN1150: the journal is inside this volume and has to be initialised.
std::vector<std::byte> journalInfoBlock(std::uint64_t offset, std::uint64_t bytes) {
  constexpr std::uint32_t kInThisVolume = 1;
  constexpr std::uint32_t kNeedsInitialising = 4;
  std::vector<std::byte> block;
  base::ByteWriter out(block);
  out.put(kInThisVolume | kNeedsInitialising).zeros(8 * 4).put(offset).put(bytes);
  block.resize(kBlockBytes);
  return block;
}

class Layout {
 public:
  explicit Layout(const EmptyVolumeOptions& options)
      : options_(options),
        totalBlocks_(options.bytes / kBlockBytes),
        tree_({.name = options.name,
               .mode = mode::kFolder | 0755,
               .owner = options.owner,
               .group = options.group,
               .times = times()}) {}

  base::Result<std::vector<Piece>> lay() {
    if (totalBlocks_ > std::numeric_limits<std::uint32_t>::max())
      return base::Error{"the partition is larger than an HFS+ volume can be (16 TiB)"};
    take(1);
    const Fork allocation = placeFork((totalBlocks_ + 8 * kBlockBytes - 1) / (8 * kBlockBytes) * kBlockBytes);
    if (options_.journaled)
      if (auto placed = placeJournal(); !placed) return placed.error();
    tree_.finish();
    placeJournalFiles();
    const CatalogRecords records(tree_, kBlockBytes);
    const NoRecords none;
    const Fork extents = placeTree(BTreeFile(none, kExtentsShape));
    const Fork catalog = placeTree(BTreeFile(records, kCatalogShape));
    const Fork attributes = placeTree(BTreeFile(none, kAttributesShape));
    if (nextBlock_ + 1 >= totalBlocks_) return base::Error{"the partition is too small for an HFS+ volume"};
    putBitmap(allocation);
    putHeaders({allocation, extents, catalog, attributes});
    std::ranges::sort(pieces_, {}, &Piece::offset);
    return std::move(pieces_);
  }

 private:
  Times times() const { return {options_.now, options_.now, options_.now, options_.now}; }

  std::uint32_t take(std::uint64_t blocks) {
    return static_cast<std::uint32_t>(std::exchange(nextBlock_, nextBlock_ + blocks));
  }
  Fork placeFork(std::uint64_t bytes) {
    const auto blocks = static_cast<std::uint32_t>((bytes + kBlockBytes - 1) / kBlockBytes);
    return {bytes, take(blocks), blocks};
  }
  static std::uint64_t offsetOf(const Fork& fork) { return std::uint64_t{fork.firstBlock} * kBlockBytes; }

  base::Result<void> placeJournal() {
    journalInfo_ = placeFork(kBlockBytes);
    journal_ = placeFork(journalBytes(options_.bytes));
    pieces_.push_back({offsetOf(journalInfo_), journalInfoBlock(offsetOf(journal_), journal_.size)});
    // No header that an earlier volume may have left at this place.
    pieces_.push_back({offsetOf(journal_), std::vector<std::byte>(kBlockBytes)});
    for (const auto& [name, size] :
         {std::pair{".journal", journal_.size}, {".journal_info_block", kBlockBytes}}) {
      const Item file{.name = name, .mode = mode::kRegular, .size = size, .times = times()};
      if (auto added = tree_.add(kRootNode, file); !added) return added.error();
    }
    return {};
  }
  void placeJournalFiles() {
    if (!options_.journaled) return;
    tree_.place(1, journal_.firstBlock);
    tree_.place(2, journalInfo_.firstBlock);
  }

  Fork placeTree(const BTreeFile& tree) {
    const Fork fork = placeFork(tree.size());
    std::vector<std::byte> bytes(tree.size());
    for (std::uint32_t node = 0; node < tree.nodeCount(); ++node)
      tree.makeNode(node, std::span(bytes).subspan(std::size_t{node} * tree.nodeBytes(), tree.nodeBytes()));
    pieces_.push_back({offsetOf(fork), std::move(bytes)});
    return fork;
  }

  // The blocks up to the free ones are used, and the last one, which holds the alternate header; so is what
  // is beyond the volume.
  void putBitmap(const Fork& fork) {
    std::vector<std::byte> map(fork.size);
    for (std::uint64_t block = 0; block < nextBlock_; ++block) use(map, block);
    for (std::uint64_t block = totalBlocks_ - 1; block < map.size() * 8; ++block) use(map, block);
    pieces_.push_back({offsetOf(fork), std::move(map)});
  }
  static void use(std::vector<std::byte>& map, std::uint64_t block) {
    map[block / 8] |= std::byte{0x80} >> (block % 8);
  }

  struct SpecialForks {
    Fork allocation;
    Fork extents;
    Fork catalog;
    Fork attributes;
  };
  void putHeaders(const SpecialForks& forks) {
    const std::vector<std::byte> header = makeHeader(forks);
    Piece first{0, std::vector<std::byte>(kBlockBytes)};
    std::ranges::copy(header, first.bytes.begin() + kHeaderOffset);
    Piece alternate{options_.bytes - kHeaderOffset, header};
    alternate.bytes.resize(kHeaderOffset);
    pieces_.push_back(std::move(first));
    pieces_.push_back(std::move(alternate));
  }
  std::vector<std::byte> makeHeader(const SpecialForks& forks) const {
    const std::uint32_t version = options_.journaled ? 0x4846534A : 0x31302E30;  // "HFSJ", "10.0"
    const std::uint32_t now = volumeDate(options_.now);
    std::vector<std::byte> bytes;
    base::ByteWriter out(bytes);
    out.put(std::uint16_t{0x482B}).put(std::uint16_t{4});
    out.put(kUnmountedCleanly | (options_.journaled ? kJournaled : 0))
        .put(version)
        .put(journalInfo_.firstBlock);
    out.put(now).put(now).put(std::uint32_t{0}).put(now);
    out.put(options_.journaled ? std::uint32_t{2} : std::uint32_t{0}).put(std::uint32_t{0});
    out.put(kBlockBytes).put(static_cast<std::uint32_t>(totalBlocks_));
    out.put(static_cast<std::uint32_t>(totalBlocks_ - 1 - nextBlock_))
        .put(static_cast<std::uint32_t>(nextBlock_));
    out.put(kBlockBytes * 16).put(kBlockBytes * 16).put(tree_.nextCatalogID());
    out.put(std::uint32_t{1}).put(std::uint64_t{1});
    out.zeros(24).put(options_.identifier);
    putFork(forks.allocation, static_cast<std::uint32_t>(forks.allocation.size), out);
    for (const Fork& fork : {forks.extents, forks.catalog, forks.attributes})
      putFork(fork, clumpBytes(), out);
    putFork({}, 0, out);
    return bytes;
  }
  // A small volume has no room to waste.
  std::uint32_t clumpBytes() const { return options_.bytes < 128u << 20 ? kClumpBytes / 16 : kClumpBytes; }

  const EmptyVolumeOptions& options_;
  std::uint64_t totalBlocks_;
  Tree tree_;
  std::uint64_t nextBlock_ = 0;
  Fork journalInfo_;
  Fork journal_;
  std::vector<Piece> pieces_;
};

}  // namespace

base::Result<std::vector<Piece>> emptyVolume(const EmptyVolumeOptions& options) {
  if (!storedName(options.name)) return base::Error{"cannot call a volume \"" + options.name + "\""};
  return Layout(options).lay();
}

}  // namespace image::hfs
