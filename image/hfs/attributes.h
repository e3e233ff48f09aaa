#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "image/hfs/btree.h"
#include "image/hfs/tree.h"

namespace image::hfs {

// How the volume names an extended attribute of a POSIX system: "user.x" is "x", unless that would read as a
// name of another namespace; every other name stays as it is.
std::string storedAttributeName(std::string_view name);
// The other way. U+0000, which no system bears in a name, gives way to its picture.
std::string attributeName(std::string_view storedName);

struct Attribute {
  std::u16string name;
  std::vector<std::byte> value{};
};

// The records of a volume's attributes file: the items' extended attributes and what Original keeps. A value
// too long for a node stands in blocks of its own.
class AttributeRecords final : public RecordSource {
 public:
  // The tree is finished and outlives the records.
  AttributeRecords(const Tree& tree, std::uint32_t blockBytes);

  Position begin() const override { return skipEmpty({0, 0}); }
  Position end() const override { return {static_cast<std::uint32_t>(tree_.nodes().size()), 0}; }
  Position next(Position at) const override { return skipEmpty({at.major, at.minor + 1}); }
  Sizes sizes(Position at) const override;
  void putKey(Position at, base::ByteWriter& out) const override;
  void putData(Position at, base::ByteWriter& out) const override;

  // A value in blocks of its own.
  struct LongValue {
    Position at;
    std::uint64_t size = 0;
    std::uint32_t firstBlock = 0;
  };
  // In the order of the records. Whoever lays the volume out sets the blocks.
  std::vector<LongValue>& longValues() { return longValues_; }
  const std::vector<LongValue>& longValues() const { return longValues_; }
  // Part of a value, wholly inside it.
  void readValue(Position at, std::uint64_t offset, std::span<std::byte> into) const;

 private:
  Position skipEmpty(Position at) const;
  Attribute attributeAt(Position at) const;

  const Tree& tree_;
  std::uint32_t blockBytes_;
  std::vector<LongValue> longValues_;
};

// All attributes of an item, in the order of their names.
std::vector<Attribute> attributesOf(const Tree& tree, NodeIndex node);
std::uint32_t attributeCount(const Tree& tree, NodeIndex node);

}  // namespace image::hfs
