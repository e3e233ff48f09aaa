#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "base/result.h"
#include "image/hfs/cost_cache.h"
#include "image/hfs/volume_view.h"

namespace image::hfs {

// Looks records of a B-tree up without going through all of it. Nodes are checked as they are met: kinds,
// heights, the order of keys, and that a leaf's neighbour goes on where it ends; so every search ends. Any
// number of threads may call where they may read the fork.
class BTreeReader {
 public:
  // How a record's key stands to what is sought.
  using Probe = std::function<std::strong_ordering(std::span<const std::byte> key)>;
  // False ends the scan. What it is given lives until it returns.
  using Visitor = std::function<base::Result<bool>(const RecordView&)>;

  // The view's fork outlives the reader. cacheBytes: of nodes that are kept.
  BTreeReader(BTreeView view, KeyOrder order, std::uint64_t cacheBytes)
      : view_(std::move(view)), order_(std::move(order)), nodes_(cacheBytes) {}

  // Hands over, in key order, the records from the first one on that is not below what is sought.
  base::Result<void> scan(const Probe& probe, const Visitor& visit) const;
  // Hands over the one record that the probe calls equal; false when there is none.
  base::Result<bool> find(const Probe& probe, const std::function<void(const RecordView&)>& visit) const;

 private:
  struct Node {
    NodeView view;
    std::vector<RecordView> records;
  };
  using NodePointer = std::shared_ptr<const Node>;

  base::Result<NodePointer> node(std::uint32_t number, unsigned height) const;
  base::Result<NodePointer> load(std::uint32_t number) const;
  // The leaf that has what is sought, or would have it; its number beside it.
  struct Place {
    std::uint32_t number = 0;
    NodePointer leaf{};
  };
  base::Result<Place> descend(const Probe& probe) const;
  base::Result<Place> nextLeaf(const Place& from) const;

  BTreeView view_;
  KeyOrder order_;
  mutable CostCache<std::uint32_t, Node> nodes_;
};

}  // namespace image::hfs
