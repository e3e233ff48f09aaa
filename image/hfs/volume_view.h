#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/byte_order.h"
#include "base/random_access.h"
#include "base/result.h"
#include "image/hfs/unicode_name.h"

namespace image::hfs {

struct Extent {
  std::uint32_t firstBlock = 0;
  std::uint32_t blocks = 0;
};

// A fork as a volume header or a file record describes it.
struct ForkRecord {
  std::uint64_t size = 0;
  std::uint32_t blocks = 0;
  // Those that stand in the record; empty ones left out.
  std::vector<Extent> extents{};
};
ForkRecord getFork(base::ByteReader& in);

struct VolumeHeader {
  // From the volume's beginning, and of the alternate header from its end.
  static constexpr std::uint64_t kOffset = 1024;
  static constexpr std::uint32_t kUnmountedCleanly = 0x100;
  // Numbers of items that are gone are given to new ones, the next number being any.
  static constexpr std::uint32_t kReusesNumbers = 0x1000;
  static constexpr std::uint32_t kJournaled = 0x2000;

  NameOrder order = NameOrder::caseFolding;
  // HFSX, whose catalog file says which order its names have.
  bool isX = false;
  std::uint32_t attributes = 0;
  std::uint32_t lastMountedVersion = 0;
  std::uint32_t journalInfoBlock = 0;
  std::uint32_t created = 0;
  std::uint32_t fileCount = 0;
  std::uint32_t folderCount = 0;
  std::uint32_t blockBytes = 0;
  std::uint32_t totalBlocks = 0;
  std::uint32_t freeBlocks = 0;
  std::uint32_t nextCatalogID = 0;
  ForkRecord allocation;
  ForkRecord extentsOverflow;
  ForkRecord catalog;
  ForkRecord attributesFile;
  ForkRecord startupFile;

  std::uint64_t volumeBytes() const { return std::uint64_t{blockBytes} * totalBlocks; }
  // A header of a volume of that many bytes; refuses numbers that contradict each other.
  static base::Result<VolumeHeader> decode(std::span<const std::byte> bytes, std::uint64_t volumeBytes);
};

// Where the bytes of a fork, whose extents are all known, stand on the volume.
class ForkMap {
 public:
  ForkMap(std::uint32_t blockBytes, std::vector<Extent> extents);

  // That the extents have.
  std::uint64_t bytes() const { return bytes_; }
  std::size_t extentCount() const { return extents_.size(); }

  // From one place in the fork to the end of its extent.
  struct Part {
    std::uint64_t volumeOffset = 0;
    std::uint64_t bytes = 0;
  };
  // offset: below bytes().
  Part partAt(std::uint64_t offset) const;

 private:
  std::uint32_t blockBytes_;
  std::vector<Extent> extents_;
  // Where in the fork each extent begins.
  std::vector<std::uint64_t> starts_{};
  std::uint64_t bytes_ = 0;
};

// The bytes of a fork, whose extents are all known. Lives no longer than the volume's bytes.
// Any number of threads may read where they may read the volume.
class ForkView : public base::RandomAccess {
 public:
  ForkView(const base::RandomAccess& volume, std::uint32_t blockBytes, std::uint64_t size,
           std::vector<Extent> extents);

  std::uint64_t size() const override { return size_; }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override;

 private:
  const base::RandomAccess& volume_;
  std::uint64_t size_;
  ForkMap map_;
};

// What the nodes of a B-tree are, as their heads say.
inline constexpr std::int8_t kLeafNode = -1;
inline constexpr std::int8_t kIndexNode = 0;

// One node of a B-tree, its records checked to lie inside it.
struct NodeView {
  std::uint32_t next = 0;
  std::uint32_t previous = 0;
  std::int8_t kind = 0;
  std::uint8_t height = 0;
  std::vector<std::byte> bytes{};
  std::vector<std::span<const std::byte>> records{};
};

// A key and what follows it in a record of a tree with 16-bit key lengths. Both empty when the record is
// damaged.
struct RecordView {
  std::span<const std::byte> key{};
  std::span<const std::byte> data{};
};
RecordView splitRecord(std::span<const std::byte> record);

// The UTF-16 text in a key whose length stands at `at`, or what of it is inside the key and not longer than
// any name. Takes no memory: keys are compared by the million.
class KeyName {
 public:
  KeyName(std::span<const std::byte> key, std::size_t at);
  std::u16string_view text() const { return {units_.data(), size_}; }

 private:
  std::array<char16_t, kMaxNameUnits> units_;
  std::size_t size_ = 0;
};

// What stands in a catalog key, or as much of it as is inside.
struct CatalogKey {
  std::uint32_t parent;
  KeyName name;
};
CatalogKey catalogKey(std::span<const std::byte> key);

// The same of an attributes key.
struct AttributeKey {
  std::uint32_t file;
  std::uint32_t firstBlock;
  KeyName name;
};
AttributeKey attributeKey(std::span<const std::byte> key);

// The same of an extents key.
struct ExtentsKey {
  std::uint32_t file = 0;
  std::uint8_t fork = 0;
  std::uint32_t firstBlock = 0;
};
ExtentsKey extentsKey(std::span<const std::byte> key);

// Negative, zero or positive, as the order of two whole keys is.
using KeyOrder = std::function<std::strong_ordering(std::span<const std::byte>, std::span<const std::byte>)>;
KeyOrder catalogOrder(NameOrder order);
KeyOrder extentsOrder();
KeyOrder attributesOrder();

// A B-tree file of a volume.
class BTreeView {
 public:
  using Visitor = std::function<base::Result<void>(const RecordView&)>;

  // The fork outlives the view. `what` names the tree in messages.
  static base::Result<BTreeView> open(const base::RandomAccess& fork, std::string what);

  base::Result<NodeView> node(std::uint32_t number) const;
  // Goes through the whole tree from the root down, checks every link, height, key order and count and the
  // map of used nodes, and hands each leaf record over in key order. `visit` may refuse one.
  base::Result<void> walk(const KeyOrder& order, const Visitor& visit) const;

  base::Error damaged(std::string_view how, std::uint32_t node) const;

  std::uint32_t nodeCount() const { return nodeCount_; }
  std::uint32_t nodeBytes() const { return nodeBytes_; }
  std::uint32_t root() const { return root_; }
  // Levels of nodes; 0 of an empty tree.
  std::uint16_t depth() const { return depth_; }
  std::uint16_t maxKeyLength() const { return maxKeyLength_; }
  std::uint8_t keyCompareType() const { return keyCompareType_; }

 private:
  BTreeView(const base::RandomAccess& fork, std::string what) : fork_(&fork), what_(std::move(what)) {}

  class Walk;

  // seen: the nodes that the tree itself reaches.
  base::Result<void> checkMap(std::vector<bool> seen) const;

  const base::RandomAccess* fork_;
  std::string what_;
  std::uint32_t nodeBytes_ = 0;
  std::uint32_t nodeCount_ = 0;
  std::uint32_t freeNodes_ = 0;
  std::uint32_t root_ = 0;
  std::uint32_t firstLeaf_ = 0;
  std::uint32_t lastLeaf_ = 0;
  std::uint32_t leafRecords_ = 0;
  std::uint16_t depth_ = 0;
  std::uint16_t maxKeyLength_ = 0;
  std::uint8_t keyCompareType_ = 0;
};

}  // namespace image::hfs
