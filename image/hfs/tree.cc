#include "image/hfs/tree.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <set>

#include "base/unicode.h"

namespace image::hfs {
namespace {

constexpr std::uint32_t kRootCatalogID = 2;
constexpr std::uint32_t kFirstUserCatalogID = 16;
constexpr std::u16string_view kPrivateFolderName{u"\0\0\0\0HFS+ Private Data", 21};

std::u16string decimal(std::uint64_t number) {
  const std::string text = std::to_string(number);
  return {text.begin(), text.end()};
}

// A text of ASCII that tells the bytes apart: all but plain characters as %XX.
std::u16string percentEscaped(std::string_view bytes) {
  constexpr std::u16string_view kDigits = u"0123456789ABCDEF";
  std::u16string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte > 0x20 && byte < 0x7F && c != '%' && c != ':' && c != '/') {
      text.push_back(byte);
    } else {
      text.push_back(u'%');
      text.push_back(kDigits[byte >> 4]);
      text.push_back(kDigits[byte & 15]);
    }
  }
  return text;
}

bool hasFraction(const Times& times) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  return (times.created % kNanoseconds | times.modified % kNanoseconds | times.changed % kNanoseconds |
          times.accessed % kNanoseconds) != 0;
}

bool areUnique(const std::vector<std::pair<std::u16string, NodeIndex>>& sorted) {
  const auto same = [](const auto& a, const auto& b) { return a.first == b.first; };
  return std::ranges::adjacent_find(sorted, same) == sorted.end();
}

}  // namespace

Tree::Tree(const Item& root) {
  nodes_.reserve(1024);
  // The root's name has no place in a folder, so that it cannot be refused.
  static_cast<void>(append(kRootNode, root));
}

base::Result<NodeIndex> Tree::append(NodeIndex folder, const Item& item) {
  constexpr std::size_t kMaxNodes = std::numeric_limits<std::uint32_t>::max() - 64;
  if (nodes_.size() >= kMaxNodes ||
      names_.size() + item.name.size() > std::numeric_limits<std::uint32_t>::max())
    return base::Error{"more items than a volume can number"};
  if (item.name.size() > 255) return base::Error{"a name of more than 255 bytes"};
  const auto index = static_cast<NodeIndex>(nodes_.size());
  nodes_.push_back({.size = item.size,
                    .times = item.times,
                    .owner = item.owner,
                    .group = item.group,
                    .parent = folder,
                    .first = item.device,
                    .name = static_cast<std::uint32_t>(names_.size()),
                    .mode = item.mode,
                    .nameBytes = static_cast<std::uint8_t>(item.name.size())});
  names_ += item.name;
  return index;
}

base::Result<NodeIndex> Tree::add(NodeIndex folder, const Item& item) {
  auto index = append(folder, item);
  if (!index) return index;
  Node& parent = nodes_[folder];
  if (parent.children++ == 0) parent.first = *index;
  return index;
}

base::Result<NodeIndex> Tree::addLink(NodeIndex folder, std::string_view name, NodeIndex existing) {
  const Node original = nodes_[existing];
  auto index = add(folder, {.name = name,
                            .mode = original.mode,
                            .owner = original.owner,
                            .group = original.group,
                            .size = original.size,
                            .times = original.times});
  if (!index) return index;
  if (original.linkGroup == kNoNode) {
    nodes_[existing].linkGroup = static_cast<std::uint32_t>(linkGroups_.size());
    linkGroups_.push_back({.links = {existing}});
  }
  const std::uint32_t group = nodes_[existing].linkGroup;
  nodes_[*index].linkGroup = group;
  linkGroups_[group].links.push_back(*index);
  return index;
}

base::Result<void> Tree::addAttribute(NodeIndex node, std::string_view name,
                                      std::span<const std::byte> value) {
  constexpr std::size_t kMaxAttributeNameUnits = 127;
  const auto units = base::utf16FromUTF8(name);
  if (units.size() > kMaxAttributeNameUnits || base::utf8FromUTF16(units) != name)
    return base::Error{"the extended attribute " + std::string(name) + ": no volume can hold that name"};
  attributes_.push_back({node, static_cast<std::uint32_t>(name.size()),
                         static_cast<std::uint32_t>(value.size()), attributeBytes_.size()});
  attributeBytes_ += name;
  attributeBytes_.append(reinterpret_cast<const char*>(value.data()), value.size());
  return {};
}

std::span<const KeptAttribute> Tree::attributesOf(NodeIndex node) const {
  if (attributes_.empty() || isLink(node)) return {};
  const NodeIndex keeper = isIndirect(node) ? nodes_[node].name : node;
  const auto range = std::ranges::equal_range(attributes_, keeper, {}, &KeptAttribute::node);
  return {range.begin(), range.end()};
}

std::string_view Tree::nameOf(const KeptAttribute& attribute) const {
  return std::string_view(attributeBytes_).substr(attribute.offset, attribute.nameBytes);
}

std::span<const std::byte> Tree::valueOf(const KeptAttribute& attribute) const {
  return std::as_bytes(std::span(attributeBytes_))
      .subspan(attribute.offset + attribute.nameBytes, attribute.valueBytes);
}

std::string_view Tree::sourceName(NodeIndex node) const {
  return std::string_view(names_).substr(nodes_[node].name, nodes_[node].nameBytes);
}

bool Tree::isIndirect(NodeIndex node) const { return privateFolder_ != kNoNode && node > privateFolder_; }
bool Tree::isLink(NodeIndex node) const { return nodes_[node].linkGroup != kNoNode && !isIndirect(node); }

std::uint32_t Tree::catalogID(NodeIndex node) const {
  return node == kRootNode ? kRootCatalogID : kFirstUserCatalogID - 1 + node;
}

std::u16string Tree::storedNameOf(NodeIndex node) const {
  if (node == privateFolder_) return std::u16string(kPrivateFolderName);
  if (isIndirect(node)) return u"iNode" + decimal(catalogID(node));
  if (const auto altered = altered_.find(node); altered != altered_.end()) return altered->second;
  return *storedName(sourceName(node));
}

std::span<const NodeIndex> Tree::childrenInOrder(NodeIndex folder) const {
  if (folder == kRootNode && privateFolder_ != kNoNode) return rootOrder_;
  return std::span(childOrder_).subspan(nodes_[folder].first, nodes_[folder].children);
}

std::span<NodeIndex> Tree::orderOf(NodeIndex folder) {
  if (folder == kRootNode && privateFolder_ != kNoNode) return rootOrder_;
  return std::span(childOrder_).subspan(nodes_[folder].first, nodes_[folder].children);
}

// The files that have several names move into a private folder, where they are called by their numbers.
void Tree::addIndirectNodes() {
  if (linkGroups_.empty()) return;
  const Times rootTimes = nodes_[kRootNode].times;
  privateFolder_ = static_cast<NodeIndex>(nodes_.size());
  nodes_.push_back({.times = rootTimes, .parent = kRootNode, .mode = mode::kFolder | 0755});
  nodes_[privateFolder_].first = privateFolder_ + 1;
  nodes_[privateFolder_].children = static_cast<std::uint32_t>(linkGroups_.size());
  for (auto& group : linkGroups_) {
    group.indirect = static_cast<NodeIndex>(nodes_.size());
    Node indirect = nodes_[group.links.front()];
    indirect.parent = privateFolder_;
    indirect.name = group.links.front();
    indirect.nameBytes = 0;
    for (const NodeIndex link : group.links) nodes_[link].size = 0;
    nodes_.push_back(indirect);
  }
  const Node& root = nodes_[kRootNode];
  rootOrder_.resize(root.children);
  std::iota(rootOrder_.begin(), rootOrder_.end(), root.first);
  rootOrder_.push_back(privateFolder_);
  ++nodes_[kRootNode].children;
}

std::u16string Tree::initialName(NodeIndex node) {
  if (node == privateFolder_ || isIndirect(node) || altered_.contains(node)) return storedNameOf(node);
  if (auto name = storedName(sourceName(node))) return *std::move(name);
  alterName(node, {});
  return storedNameOf(node);
}

// An altered name is the escaped bytes, cut short and numbered where that is needed to tell it from others.
void Tree::alterName(NodeIndex node, const std::set<std::u16string>& taken) {
  const std::u16string escaped = percentEscaped(sourceName(node));
  std::u16string name = escaped.substr(0, kMaxNameUnits);
  for (std::uint64_t number = 2; taken.contains(name); ++number) {
    const std::u16string suffix = u"~" + decimal(number);
    name = escaped.substr(0, kMaxNameUnits - suffix.size()) + suffix;
  }
  altered_[node] = std::move(name);
}

bool Tree::sortChildren(NodeIndex folder) {
  const auto order = orderOf(folder);
  std::vector<std::pair<std::u16string, NodeIndex>> keys;
  keys.reserve(order.size());
  bool hidden = false;
  for (const NodeIndex child : order) {
    std::u16string name = initialName(child);
    nodes_[child].nameUnits = static_cast<std::uint8_t>(name.size());
    if (order_ == NameOrder::caseFolding) name = foldedName(name);
    hidden |= name.empty();
    keys.emplace_back(std::move(name), child);
  }
  std::ranges::sort(keys);
  std::ranges::transform(keys, order.begin(), [](const auto& key) { return key.second; });
  return !hidden && areUnique(keys);
}

bool Tree::sortAllChildren() {
  for (NodeIndex folder = 0; folder < nodes_.size(); ++folder)
    if (nodes_[folder].isFolder() && !sortChildren(folder)) return false;
  return true;
}

void Tree::separateEqualNames(NodeIndex folder) {
  std::set<std::u16string> taken;
  for (const NodeIndex child : orderOf(folder)) taken.insert(initialName(child));
  std::set<std::u16string> seen;
  for (const NodeIndex child : orderOf(folder)) {
    if (seen.insert(initialName(child)).second) continue;
    alterName(child, taken);
    taken.insert(altered_[child]);
    seen.insert(altered_[child]);
  }
}

void Tree::finish() {
  addIndirectNodes();
  hasFractions_ = std::ranges::any_of(nodes_, [](const Node& node) { return hasFraction(node.times); });
  childOrder_.resize(nodes_.size());
  std::iota(childOrder_.begin(), childOrder_.end(), NodeIndex{0});
  nodes_[kRootNode].nameUnits = static_cast<std::uint8_t>(initialName(kRootNode).size());
  if (sortAllChildren()) return;
  order_ = NameOrder::binary;
  for (NodeIndex folder = 0; folder < nodes_.size(); ++folder) {
    if (!nodes_[folder].isFolder() || sortChildren(folder)) continue;
    separateEqualNames(folder);
    sortChildren(folder);
  }
}

}  // namespace image::hfs
