#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "base/byte_order.h"

namespace image::hfs {

// The records of a B-tree in key order, made anew whenever somebody asks, so that a tree of any size needs no
// memory for them. Any number of threads may ask.
class RecordSource {
 public:
  // Where a record stands; what the numbers mean is the source's affair.
  struct Position {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    friend bool operator==(const Position&, const Position&) = default;
  };
  // In bytes; a key's includes its length field.
  struct Sizes {
    std::size_t key = 0;
    std::size_t data = 0;
  };

  virtual ~RecordSource() = default;
  virtual Position begin() const = 0;
  virtual Position end() const = 0;
  virtual Position next(Position at) const = 0;
  virtual Sizes sizes(Position at) const = 0;
  virtual void putKey(Position at, base::ByteWriter& out) const = 0;
  virtual void putData(Position at, base::ByteWriter& out) const = 0;
};

// What an empty tree is made of.
class NoRecords : public RecordSource {
 public:
  Position begin() const override { return {}; }
  Position end() const override { return {}; }
  Position next(Position at) const override { return at; }
  Sizes sizes(Position) const override { return {}; }
  void putKey(Position, base::ByteWriter&) const override {}
  void putData(Position, base::ByteWriter&) const override {}
};

struct BTreeShape {
  std::uint32_t nodeBytes;
  std::uint16_t maxKeyLength;
  // 0xCF folds case, 0xBC does not; only a catalog of an HFSX volume is asked.
  std::uint8_t keyCompareType = 0;
  // Bit 1: 16-bit key lengths. Bit 2: index keys of variable length.
  std::uint32_t attributes = 0;
};

// A B-tree file of an HFS+ volume (TN1150, "B-Trees"), packed full, its nodes in the order: header, map
// nodes, leaves, index levels from the lowest to the root. Keeps eight bytes for each leaf and the index
// nodes.
class BTreeFile {
 public:
  // The source outlives the file.
  BTreeFile(const RecordSource& records, const BTreeShape& shape);

  std::uint32_t nodeBytes() const { return shape_.nodeBytes; }
  std::uint32_t nodeCount() const { return nodeCount_; }
  std::uint64_t size() const { return std::uint64_t{nodeCount_} * shape_.nodeBytes; }
  // `into` has nodeBytes() bytes.
  void makeNode(std::uint32_t node, std::span<std::byte> into) const;

 private:
  using Position = RecordSource::Position;

  void packLeaves();
  void packIndexLevels();
  void countNodes();
  // The first leaf under a node of an index level.
  std::uint32_t firstLeafUnder(std::size_t level, std::uint32_t ordinal) const;
  std::uint32_t nodesIn(std::size_t level) const;
  std::uint32_t firstNodeOf(std::size_t level) const;
  void makeHeader(std::span<std::byte> into) const;
  void makeMap(std::uint32_t node, std::span<std::byte> into) const;
  void makeLeaf(std::uint32_t leaf, std::span<std::byte> into) const;
  void makeIndex(std::size_t level, std::uint32_t ordinal, std::span<std::byte> into) const;

  std::uint32_t leafCount() const { return static_cast<std::uint32_t>(leafStarts_.size()); }

  const RecordSource& records_;
  BTreeShape shape_;
  std::vector<Position> leafStarts_;
  std::uint32_t recordCount_ = 0;
  // For each index level from the lowest: which node of the level below (leaves are below the first) stands
  // first in each of its nodes.
  std::vector<std::vector<std::uint32_t>> levels_;
  std::uint32_t mapNodes_ = 0;
  std::uint32_t nodeCount_ = 1;
};

}  // namespace image::hfs
