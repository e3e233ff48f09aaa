#include "image/hfs/catalog.h"

#include <algorithm>
#include <limits>

#include "image/hfs/attributes.h"
#include "image/hfs/catalog_format.h"

namespace image::hfs {
namespace {

constexpr std::size_t kFolderRecordBytes = 88;
constexpr std::size_t kFileRecordBytes = 248;

// Finder flags.
constexpr std::uint16_t kInvisibleAndNameLocked = 0x5000;

constexpr std::uint32_t fourCharacters(const char (&text)[5]) {
  std::uint32_t code = 0;
  for (int i = 0; i < 4; ++i) code = code << 8 | static_cast<unsigned char>(text[i]);
  return code;
}

// Type and creator, which say what a file without a type of its own is.
struct FinderType {
  std::uint32_t type = 0;
  std::uint32_t creator = 0;
};
constexpr FinderType kSymbolicLink{fourCharacters("slnk"), fourCharacters("rhap")};
constexpr FinderType kHardLink{fourCharacters("hlnk"), fourCharacters("hfs+")};

void putName(std::u16string_view name, base::ByteWriter& out) {
  out.put(static_cast<std::uint16_t>(name.size()));
  for (const char16_t unit : name) out.put(static_cast<std::uint16_t>(unit));
}

void putDates(const Times& times, base::ByteWriter& out) {
  for (const std::int64_t time : {times.created, times.modified, times.changed, times.accessed})
    out.put(volumeDate(time));
  out.put(std::uint32_t{0});  // never backed up
}

// The platform's own device numbers: 8 bits of major, 24 of minor.
std::uint32_t volumeDevice(std::uint32_t device) { return deviceMajor(device) << 24 | deviceMinor(device); }

struct Permissions {
  std::uint32_t owner;
  std::uint32_t group;
  std::uint16_t mode;
  std::uint32_t special;
};

void putPermissions(const Permissions& p, base::ByteWriter& out) {
  out.put(p.owner).put(p.group).put(std::uint16_t{0}).put(p.mode).put(p.special);
}

// A file record from its type and creator to its end.
void putFileTail(const FinderType& type, std::uint16_t finderFlags, const Fork& data, base::ByteWriter& out) {
  out.put(type.type).put(type.creator).put(finderFlags).zeros(6);
  out.zeros(16 + 4 + 4);
  putFork(data, 0, out);
  putFork({}, 0, out);
}

}  // namespace

std::uint32_t volumeDate(std::int64_t nanosecondsSince1970) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  constexpr std::int64_t kSecondsFrom1904To1970 = 2'082'844'800;
  std::int64_t seconds = nanosecondsSince1970 / kNanoseconds;
  if (nanosecondsSince1970 % kNanoseconds < 0) --seconds;
  return static_cast<std::uint32_t>(std::clamp<std::int64_t>(seconds + kSecondsFrom1904To1970, 0,
                                                             std::numeric_limits<std::uint32_t>::max()));
}

void putFork(const Fork& fork, std::uint32_t clumpBytes, base::ByteWriter& out) {
  out.put(fork.size).put(clumpBytes).put(fork.blocks);
  out.put(fork.blocks == 0 ? 0 : fork.firstBlock).put(fork.blocks).zeros(7 * 8);
}

CatalogRecords::Position CatalogRecords::next(Position at) const {
  if (at.major == kNoNode) return {kRootNode, 0};
  const Node& node = tree_.nodes()[at.major];
  if (node.isFolder() && at.minor < node.children) return {at.major, at.minor + 1};
  return {at.major + 1, 0};
}

NodeIndex CatalogRecords::recordAt(Position at) const {
  if (at.major == kNoNode) return kRootNode;
  return at.minor == 0 ? kNoNode : tree_.childrenInOrder(at.major)[at.minor - 1];
}

RecordSource::Sizes CatalogRecords::sizes(Position at) const {
  constexpr std::size_t kKeyBytes = 2 + 4 + 2;
  constexpr std::size_t kThreadBytes = 2 + 2 + 4 + 2;
  const NodeIndex record = recordAt(at);
  if (record == kNoNode) return {kKeyBytes, kThreadBytes + 2u * tree_.nodes()[at.major].nameUnits};
  const Node& node = tree_.nodes()[record];
  return {kKeyBytes + 2u * node.nameUnits, node.isFolder() ? kFolderRecordBytes : kFileRecordBytes};
}

void CatalogRecords::putKey(Position at, base::ByteWriter& out) const {
  const NodeIndex record = recordAt(at);
  const std::u16string name = record == kNoNode ? std::u16string() : tree_.storedNameOf(record);
  const std::uint32_t parent = at.major == kNoNode ? kRootParentID : tree_.catalogID(at.major);
  out.put(static_cast<std::uint16_t>(6 + 2 * name.size())).put(parent);
  putName(name, out);
}

void CatalogRecords::putData(Position at, base::ByteWriter& out) const {
  const NodeIndex record = recordAt(at);
  if (record == kNoNode) return putThread(at.major, out);
  if (tree_.nodes()[record].isFolder()) return putFolder(record, out);
  if (tree_.isLink(record)) return putLink(record, out);
  putFile(record, out);
}

void CatalogRecords::putThread(NodeIndex node, base::ByteWriter& out) const {
  const Node& item = tree_.nodes()[node];
  out.put(item.isFolder() ? kFolderThread : kFileThread).put(std::uint16_t{0});
  out.put(node == kRootNode ? kRootParentID : tree_.catalogID(item.parent));
  putName(tree_.storedNameOf(node), out);
}

std::uint32_t CatalogRecords::subfolders(NodeIndex folder) const {
  const auto isFolder = [this](NodeIndex child) { return tree_.nodes()[child].isFolder(); };
  return static_cast<std::uint32_t>(std::ranges::count_if(tree_.childrenInOrder(folder), isFolder));
}

std::uint16_t CatalogRecords::attributesFlag(NodeIndex node) const {
  return attributeCount(tree_, node) == 0 ? 0 : kHasAttributes;
}

void CatalogRecords::putFolder(NodeIndex node, base::ByteWriter& out) const {
  const Node& folder = tree_.nodes()[node];
  const bool counts = tree_.order() == NameOrder::binary;
  const auto flags = static_cast<std::uint16_t>((counts ? kHasFolderCount : 0) | attributesFlag(node));
  out.put(kFolderRecord).put(flags);
  out.put(folder.children).put(tree_.catalogID(node));
  putDates(folder.times, out);
  putPermissions({folder.owner, folder.group, folder.mode, 0}, out);
  const bool hidden = node == tree_.privateFolder();
  out.zeros(8).put(hidden ? kInvisibleAndNameLocked : std::uint16_t{0}).zeros(6);
  out.zeros(16 + 4).put(counts ? subfolders(node) : 0);
}

void CatalogRecords::putFile(NodeIndex node, base::ByteWriter& out) const {
  const Node& file = tree_.nodes()[node];
  const bool indirect = tree_.isIndirect(node);
  std::uint32_t special = file.isDevice() ? volumeDevice(file.first) : 0;
  std::uint32_t firstLink = 0;
  std::uint16_t flags = kHasThread | attributesFlag(node);
  if (indirect) {
    const auto& links = tree_.linkGroups()[file.linkGroup].links;
    special = static_cast<std::uint32_t>(links.size());
    firstLink = tree_.catalogID(links.front());
    flags |= kHasLinkChain;
  }
  out.put(kFileRecord).put(flags).put(firstLink).put(tree_.catalogID(node));
  putDates(file.times, out);
  putPermissions({file.owner, file.group, file.mode, special}, out);
  const auto blocks = static_cast<std::uint32_t>((file.size + blockBytes_ - 1) / blockBytes_);
  putFileTail(file.isSymbolicLink() ? kSymbolicLink : FinderType{}, 0, {file.size, file.first, blocks}, out);
}

// A link carries the creation date of the private folder, by which readers tell it from a file that merely
// has the same type; previous and next link stand where other files have owner and group.
void CatalogRecords::putLink(NodeIndex node, base::ByteWriter& out) const {
  const LinkGroup& group = tree_.linkGroups()[tree_.nodes()[node].linkGroup];
  const auto self = std::ranges::lower_bound(group.links, node);
  const std::uint32_t previous = self == group.links.begin() ? 0 : tree_.catalogID(self[-1]);
  const std::uint32_t next = self + 1 == group.links.end() ? 0 : tree_.catalogID(self[1]);
  out.put(kFileRecord)
      .put(static_cast<std::uint16_t>(kHasThread | kHasLinkChain | attributesFlag(node)))
      .put(std::uint32_t{0});
  out.put(tree_.catalogID(node));
  putDates(tree_.nodes()[tree_.privateFolder()].times, out);
  putPermissions({previous, next, mode::kRegular | 0444, tree_.catalogID(group.indirect)}, out);
  putFileTail(kHardLink, 0, {}, out);
}

}  // namespace image::hfs
