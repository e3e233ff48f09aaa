#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/result.h"
#include "image/block/content.h"
#include "image/hfs/attributes.h"
#include "image/hfs/btree.h"
#include "image/hfs/catalog.h"
#include "image/hfs/tree.h"

namespace image::hfs {

// One thread's way to the data of the tree's nodes.
class ForkReader {
 public:
  virtual ~ForkReader() = default;
  // Bytes of a node's data, wholly inside its size. Filled::zeros as in block::ContentReader.
  virtual base::Result<block::Filled> read(NodeIndex node, std::uint64_t offset,
                                           std::span<std::byte> into) = 0;
};

class ForkSource {
 public:
  virtual ~ForkSource() = default;
  virtual std::unique_ptr<ForkReader> openReader() const = 0;
};

struct VolumeOptions {
  // Nanoseconds since 1970.
  std::int64_t now = 0;
  // Random: tells volumes of the same name apart.
  std::uint64_t identifier = 0;
};

// A complete HFS+ (or HFSX) volume made of a tree, laid out without fragments: volume header, allocation
// file, extents overflow file, catalog file, attributes file with its long values, startup file (see
// nanosecondsBytes()), the files' data in the order of the tree, a little free space, alternate volume header
// (TN1150).
class Volume : public block::Content {
 public:
  // Places the files of the finished tree. Tree and forks outlive the volume.
  static base::Result<std::unique_ptr<Volume>> lay(Tree& tree, const ForkSource& forks,
                                                   const VolumeOptions& options);

  std::uint64_t size() const override { return std::uint64_t{totalBlocks_} * blockBytes_; }
  std::unique_ptr<block::ContentReader> openReader() const override;

  std::uint32_t blockBytes() const { return blockBytes_; }
  std::uint32_t fileCount() const { return fileCount_; }
  std::uint32_t folderCount() const { return folderCount_; }

 private:
  class Reader;

  Volume(Tree& tree, const ForkSource& forks, const VolumeOptions& options, std::uint32_t blockBytes);

  Fork placeFork(std::uint64_t bytes);
  base::Result<void> placeEverything(Tree& tree);
  void countItems();
  std::array<std::byte, 512> makeHeader() const;

  const Tree& tree_;
  const ForkSource& forks_;
  VolumeOptions options_;
  std::uint32_t blockBytes_;
  CatalogRecords catalogRecords_;
  BTreeFile catalog_;
  AttributeRecords attributeRecords_;
  BTreeFile attributes_;
  NoRecords noRecords_;
  BTreeFile extents_;
  std::uint64_t nextBlock_ = 0;
  std::uint32_t totalBlocks_ = 0;
  Fork allocationFork_;
  Fork extentsFork_;
  Fork catalogFork_;
  Fork attributesFork_;
  Fork startupFork_;
  // Blocks from here to nextBlock_ are the files' data.
  std::uint64_t firstDataBlock_ = 0;
  // Nodes with data, by their first block.
  std::vector<NodeIndex> dataNodes_;
  std::uint32_t fileCount_ = 0;
  std::uint32_t folderCount_ = 0;
};

}  // namespace image::hfs
