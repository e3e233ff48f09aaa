#pragma once

#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/result.h"
#include "image/hfs/unicode_name.h"

namespace image::hfs {

// Nanoseconds since 1970-01-01 UTC, which reach from 1677 to 2262.
struct Times {
  std::int64_t created = 0;
  std::int64_t modified = 0;
  std::int64_t changed = 0;
  std::int64_t accessed = 0;
};

// File types in the mode, as every POSIX system numbers them.
namespace mode {
constexpr std::uint16_t kType = 0170000;
constexpr std::uint16_t kFIFO = 0010000;
constexpr std::uint16_t kCharacterDevice = 0020000;
constexpr std::uint16_t kFolder = 0040000;
constexpr std::uint16_t kBlockDevice = 0060000;
constexpr std::uint16_t kRegular = 0100000;
constexpr std::uint16_t kSymbolicLink = 0120000;
constexpr std::uint16_t kSocket = 0140000;
}  // namespace mode

// What the source says of one item. `name` is its bytes there, without a '/'.
struct Item {
  std::string_view name;
  std::uint16_t mode = 0;
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  // Bytes of a regular file, or of a symbolic link's target; 0 for anything else.
  std::uint64_t size = 0;
  // Device nodes: major number in the upper 12 bits, minor in the lower 20.
  std::uint32_t device = 0;
  Times times;
};

using NodeIndex = std::uint32_t;
constexpr NodeIndex kRootNode = 0;
constexpr NodeIndex kNoNode = 0xFFFFFFFF;

struct Node {
  std::uint64_t size = 0;
  Times times;
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  NodeIndex parent = 0;
  // Folder: its first child. Anything with data: its first allocation block. Device: its number.
  std::uint32_t first = 0;
  // Folder: how many children.
  std::uint32_t children = 0;
  // Into the names; where an indirect node has none: the node of its first link.
  std::uint32_t name = 0;
  // Which hard-linked file this is a link of, or is the indirect node of.
  std::uint32_t linkGroup = kNoNode;
  std::uint16_t mode = 0;
  std::uint8_t nameBytes = 0;
  // Length of the stored name.
  std::uint8_t nameUnits = 0;

  bool isFolder() const { return (mode & mode::kType) == mode::kFolder; }
  bool isSymbolicLink() const { return (mode & mode::kType) == mode::kSymbolicLink; }
  bool isDevice() const {
    return (mode & mode::kType) == mode::kCharacterDevice || (mode & mode::kType) == mode::kBlockDevice;
  }
  bool hasData() const { return size != 0; }
};

constexpr std::uint32_t deviceMajor(std::uint32_t device) { return device >> 20; }
constexpr std::uint32_t deviceMinor(std::uint32_t device) { return device & 0xFFFFF; }

// An extended attribute of a node, by where the tree keeps it.
struct KeptAttribute {
  NodeIndex node = 0;
  std::uint32_t nameBytes = 0;
  std::uint32_t valueBytes = 0;
  std::uint64_t offset = 0;
};

// The links of one hard-linked file, in the order that they were found.
struct LinkGroup {
  NodeIndex indirect = kNoNode;
  std::vector<NodeIndex> links;
};

// Everything that goes into a volume but the files' bytes, at about a hundred bytes for each item. Grown by
// one thread, folder by folder; after finish() it does not change but for `first` of the files with data, and
// any number of threads may read it.
class Tree {
 public:
  // The root folder, whose name is the volume's.
  explicit Tree(const Item& root);

  // All children of one folder are added one after the other, before those of any other folder.
  base::Result<NodeIndex> add(NodeIndex folder, const Item& item);
  // Another name for the file that was added as `existing`.
  base::Result<NodeIndex> addLink(NodeIndex folder, std::string_view name, NodeIndex existing);

  // An extended attribute of the item that was added last; `name` as the volume stores it, in UTF-8.
  base::Result<void> addAttribute(NodeIndex node, std::string_view name, std::span<const std::byte> value);

  // Settles the names, the order of the folders' children and the hard links.
  void finish();

  const std::vector<Node>& nodes() const { return nodes_; }
  // Gives a file with data its first allocation block.
  void place(NodeIndex node, std::uint32_t firstBlock) { nodes_[node].first = firstBlock; }

  // Binary when names would collide otherwise; the volume is then an HFSX one.
  NameOrder order() const { return order_; }
  std::string_view sourceName(NodeIndex node) const;
  std::u16string storedNameOf(NodeIndex node) const;
  // Whether the stored name does not lead back to the source's.
  bool isNameAltered(NodeIndex node) const { return altered_.contains(node); }
  // An indirect node has those of its first link; links have none.
  std::span<const KeptAttribute> attributesOf(NodeIndex node) const;
  // Whether any date is not a whole second.
  bool hasFractions() const { return hasFractions_; }
  std::string_view nameOf(const KeptAttribute& attribute) const;
  std::span<const std::byte> valueOf(const KeptAttribute& attribute) const;
  // The children's nodes in the order of their names.
  std::span<const NodeIndex> childrenInOrder(NodeIndex folder) const;

  std::uint32_t catalogID(NodeIndex node) const;
  std::uint32_t nextCatalogID() const { return catalogID(static_cast<NodeIndex>(nodes_.size())); }
  const std::vector<LinkGroup>& linkGroups() const { return linkGroups_; }
  bool isLink(NodeIndex node) const;
  bool isIndirect(NodeIndex node) const;
  // The folder of the hard-linked files' indirect nodes, or kNoNode.
  NodeIndex privateFolder() const { return privateFolder_; }

 private:
  base::Result<NodeIndex> append(NodeIndex folder, const Item& item);
  void addIndirectNodes();
  // False when two names of the folder are the same under the order, or one is the empty name under it.
  bool sortChildren(NodeIndex folder);
  bool sortAllChildren();
  void separateEqualNames(NodeIndex folder);
  std::u16string initialName(NodeIndex node);
  void alterName(NodeIndex node, const std::set<std::u16string>& taken);
  std::span<NodeIndex> orderOf(NodeIndex folder);

  std::vector<Node> nodes_;
  std::string names_;
  std::vector<LinkGroup> linkGroups_;
  // By node.
  std::vector<KeptAttribute> attributes_;
  std::string attributeBytes_;
  bool hasFractions_ = false;
  std::unordered_map<NodeIndex, std::u16string> altered_;
  std::vector<NodeIndex> childOrder_;
  std::vector<NodeIndex> rootOrder_;
  NodeIndex privateFolder_ = kNoNode;
  NameOrder order_ = NameOrder::caseFolding;
};

}  // namespace image::hfs
