#pragma once

#include <cstdint>

#include "image/hfs/btree.h"
#include "image/hfs/tree.h"

namespace image::hfs {

// Seconds since 1904-01-01 UTC, held within what 32 bits can say (until 2040-02-06).
std::uint32_t volumeDate(std::int64_t nanosecondsSince1970);

// The fork of a file: everything this system writes is one extent.
struct Fork {
  std::uint64_t size = 0;
  std::uint32_t firstBlock = 0;
  std::uint32_t blocks = 0;
};
void putFork(const Fork& fork, std::uint32_t clumpBytes, base::ByteWriter& out);

// The records of a volume's catalog: for each item its folder or file record under (parent, name), and its
// thread record under (its own number, "").
class CatalogRecords : public RecordSource {
 public:
  // The tree is finished and outlives the records.
  CatalogRecords(const Tree& tree, std::uint32_t blockBytes) : tree_(tree), blockBytes_(blockBytes) {}

  Position begin() const override { return {kNoNode, 0}; }
  Position end() const override { return {static_cast<std::uint32_t>(tree_.nodes().size()), 0}; }
  Position next(Position at) const override;
  Sizes sizes(Position at) const override;
  void putKey(Position at, base::ByteWriter& out) const override;
  void putData(Position at, base::ByteWriter& out) const override;

 private:
  // The node whose folder or file record stands there; kNoNode where a thread does.
  NodeIndex recordAt(Position at) const;
  void putThread(NodeIndex node, base::ByteWriter& out) const;
  void putFolder(NodeIndex node, base::ByteWriter& out) const;
  void putFile(NodeIndex node, base::ByteWriter& out) const;
  void putLink(NodeIndex node, base::ByteWriter& out) const;
  std::uint16_t attributesFlag(NodeIndex node) const;
  std::uint32_t subfolders(NodeIndex folder) const;

  const Tree& tree_;
  std::uint32_t blockBytes_;
};

}  // namespace image::hfs
