#include "image/hfs/volume_reader.h"

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>

#include "image/block/zeros.h"
#include "image/hfs/catalog_format.h"
#include "image/hfs/nanoseconds.h"

namespace image::hfs {
namespace {

constexpr std::uint32_t kExtentsFileID = 3;
constexpr std::uint32_t kCatalogFileID = 4;
constexpr std::uint32_t kStartupFileID = 7;
constexpr std::uint32_t kAttributesFileID = 8;

constexpr std::u16string_view kLinkedFiles(u"\0\0\0\0HFS+ Private Data", 21);
constexpr std::u16string_view kLinkedFolders = u".HFS+ Private Directory Data\r";
constexpr std::uint64_t kFileLink = 0x686C6E6B'6866732B;    // "hlnk", "hfs+"
constexpr std::uint64_t kFolderLink = 0x66647270'4D414353;  // "fdrp", "MACS"

std::string item(std::uint32_t id) { return "item " + std::to_string(id); }

std::u16string numbered(std::u16string_view prefix, std::uint32_t number) {
  const std::string digits = std::to_string(number);
  return std::u16string(prefix) + std::u16string(digits.begin(), digits.end());
}

}  // namespace

base::Result<std::unique_ptr<VolumeReader>> VolumeReader::open(const block::Disk& disk,
                                                               std::uint64_t cacheBytes) {
  std::unique_ptr<VolumeReader> reader(new VolumeReader(disk));
  if (auto read = reader->readHeader(); !read) return read.error();
  if (auto replayed = reader->replayJournal(); !replayed) return replayed.error();
  if (auto opened = reader->openTrees(cacheBytes); !opened) return opened.error();
  if (auto opened = reader->openStartupFile(); !opened) return opened.error();
  if (auto found = reader->findPrivateFolders(); !found) return found.error();
  return reader;
}

base::Result<void> VolumeReader::readHeader() {
  std::array<std::byte, 512> sector;
  base::Result<VolumeHeader> header = base::Error{"the volume header is not there"};
  for (const std::uint64_t at : {VolumeHeader::kOffset, disk_->size() - VolumeHeader::kOffset}) {
    if (auto read = disk_->readChecked(at, sector); !read)
      return base::Error{"the volume header cannot be read: " + read.error().message};
    auto found = VolumeHeader::decode(sector, disk_->size());
    if (found || at == VolumeHeader::kOffset) header = std::move(found);
    if (header) break;
  }
  if (!header) return header.error();
  header_ = *std::move(header);
  return {};
}

// The volume header may be among what the journal has.
base::Result<void> VolumeReader::replayJournal() {
  auto journaled = JournaledDisk::replay(*disk_, header_);
  if (!journaled) return journaled.error();
  if (!*journaled) return {};
  journaled_ = *std::move(journaled);
  disk_ = journaled_.get();
  return readHeader();
}

base::Result<void> VolumeReader::openTrees(std::uint64_t cacheBytes) {
  const auto view = [this](std::uint32_t file,
                           const ForkRecord& record) -> base::Result<std::unique_ptr<ForkView>> {
    auto extents = extentsOf(file, ForkKind::data, record);
    if (!extents) return extents.error();
    return std::make_unique<ForkView>(*disk_, header_.blockBytes, record.size, *std::move(extents));
  };
  if (header_.extentsOverflow.size != 0) {
    auto fork = view(kExtentsFileID, header_.extentsOverflow);
    if (!fork) return fork.error();
    overflowFork_ = *std::move(fork);
    auto tree = BTreeView::open(*overflowFork_, "extents overflow file");
    if (!tree) return tree.error();
    overflow_ = std::make_unique<BTreeReader>(*std::move(tree), extentsOrder(), cacheBytes / 8);
  }
  auto fork = view(kCatalogFileID, header_.catalog);
  if (!fork) return fork.error();
  catalogFork_ = *std::move(fork);
  if (auto opened = openCatalog(cacheBytes / 8 * 5); !opened) return opened;
  if (header_.attributesFile.size == 0) return {};
  fork = view(kAttributesFileID, header_.attributesFile);
  if (!fork) return fork.error();
  attributesFork_ = *std::move(fork);
  auto tree = BTreeView::open(*attributesFork_, "attributes file");
  if (!tree) return tree.error();
  attributes_ = std::make_unique<AttributesReader>(*std::move(tree), cacheBytes / 4);
  return {};
}

base::Result<void> VolumeReader::openCatalog(std::uint64_t cacheBytes) {
  auto tree = BTreeView::open(*catalogFork_, "catalog file");
  if (!tree) return tree.error();
  if (header_.isX && tree->keyCompareType() == 0xBC) header_.order = NameOrder::binary;
  catalog_ = std::make_unique<CatalogReader>(*std::move(tree), header_.order, cacheBytes);
  return {};
}

base::Result<void> VolumeReader::openStartupFile() {
  std::array<std::byte, kNanosecondsEntryBytes> signature;
  if (header_.startupFile.size < signature.size()) return {};
  auto extents = extentsOf(kStartupFileID, ForkKind::data, header_.startupFile);
  if (!extents) return extents.error();
  auto fork =
      std::make_unique<ForkView>(*disk_, header_.blockBytes, header_.startupFile.size, *std::move(extents));
  if (!fork->read(0, signature)) return base::Error{"the startup file cannot be read"};
  if (isNanosecondsSignature(signature)) fractions_ = std::move(fork);
  return {};
}

base::Result<void> VolumeReader::findPrivateFolders() {
  const auto root = catalog_->byID(CatalogReader::kRootID);
  if (!root) return root.error();
  rootCreated_ = root->created;
  for (const auto& [name, folder] :
       {std::pair(kLinkedFiles, &linkedFiles_), std::pair(kLinkedFolders, &linkedFolders_)}) {
    auto found = catalog_->find(CatalogReader::kRootID, name);
    if (!found) return found.error();
    if (*found && (*found)->isFolder) *folder = **std::move(found);
  }
  return {};
}

// A file that merely has a link's type was created at another time than the private folder.
bool VolumeReader::isFileLink(const CatalogRecord& record) const {
  return linkedFiles_ && !record.isFolder && record.finderType() == kFileLink &&
         (record.has(kHasLinkChain) || record.created == linkedFiles_->created ||
          record.created == header_.created || record.created == rootCreated_);
}

bool VolumeReader::isFolderLink(const CatalogRecord& record) const {
  return linkedFolders_ && !record.isFolder && record.finderType() == kFolderLink &&
         record.has(kHasLinkChain);
}

base::Result<CatalogRecord> VolumeReader::resolved(CatalogRecord record) const {
  const bool ofFile = isFileLink(record);
  if (!ofFile && !isFolderLink(record)) return record;
  auto target = ofFile ? catalog_->find(linkedFiles_->id, numbered(u"iNode", record.special))
                       : catalog_->find(linkedFolders_->id, numbered(u"dir_", record.special));
  if (!target) return target.error();
  if (!*target || (*target)->isFolder == ofFile)
    return base::Error{item(record.id) + " is a hard link to " + item(record.special) +
                       ", which is not there"};
  return **std::move(target);
}

std::uint32_t VolumeReader::linksOf(const CatalogRecord& record) const {
  const auto isLinked = [&](const std::optional<CatalogRecord>& folder) {
    return folder && record.parent == folder->id;
  };
  const bool counts = isLinked(record.isFolder ? linkedFolders_ : linkedFiles_);
  return counts ? std::max<std::uint32_t>(record.special, 1) : 1;
}

bool VolumeReader::isHidden(const CatalogRecord& record) const {
  if (record.parent != CatalogReader::kRootID) return false;
  if (record.isFolder)
    return (linkedFiles_ && record.id == linkedFiles_->id) ||
           (linkedFolders_ && record.id == linkedFolders_->id);
  return (header_.attributes & VolumeHeader::kJournaled) != 0 &&
         (record.name == u".journal" || record.name == u".journal_info_block");
}

base::Result<std::vector<Extent>> VolumeReader::extentsOf(std::uint32_t file, ForkKind kind,
                                                          const ForkRecord& record) const {
  std::vector<Extent> extents;
  std::uint64_t blocks = 0;
  const auto add = [&](const Extent& extent) {
    if (extent.firstBlock > header_.totalBlocks || extent.blocks > header_.totalBlocks - extent.firstBlock)
      return false;
    extents.push_back(extent);
    blocks += extent.blocks;
    return true;
  };
  bool sound = std::ranges::all_of(record.extents, add);
  const auto sought = std::tuple(file, static_cast<std::uint8_t>(kind));
  const auto probe = [&](std::span<const std::byte> bytes) {
    const ExtentsKey key = extentsKey(bytes);
    const auto order = std::tuple(key.file, key.fork) <=> sought;
    return order != 0 ? order : key.firstBlock <=> static_cast<std::uint32_t>(blocks);
  };
  const auto take = [&](const RecordView& view) -> base::Result<bool> {
    if (blocks >= record.blocks || !sound || probe(view.key) != 0) return false;
    base::ByteReader in(view.data);
    for (int i = 0; i < 8; ++i) {
      const auto first = in.get<std::uint32_t>();
      const auto count = in.get<std::uint32_t>();
      if (count != 0) sound = sound && add({first, count});
    }
    sound = sound && in.ok();
    return true;
  };
  if (sound && blocks < record.blocks && kind != ForkKind::attribute && overflow_)
    if (auto scanned = overflow_->scan(probe, take); !scanned) return scanned.error();
  if (!sound) return base::Error{item(file) + " has blocks outside the volume"};
  if (blocks != record.blocks) return base::Error{item(file) + " has other blocks than its record says"};
  return extents;
}

base::Result<ForkMap> VolumeReader::fork(std::uint32_t file, ForkKind kind, const ForkRecord& record) const {
  auto extents = extentsOf(file, kind, record);
  if (!extents) return extents.error();
  return ForkMap(header_.blockBytes, *std::move(extents));
}

base::Result<void> VolumeReader::read(const ForkMap& fork, std::uint64_t offset,
                                      std::span<std::byte> into) const {
  while (!into.empty() && offset < fork.bytes()) {
    const ForkMap::Part at = fork.partAt(offset);
    const auto part = into.first(static_cast<std::size_t>(std::min<std::uint64_t>(into.size(), at.bytes)));
    if (auto read = disk_->readChecked(at.volumeOffset, part); !read) return read;
    into = into.subspan(part.size());
    offset += part.size();
  }
  block::fillZeros(into);
  return {};
}

base::Result<void> VolumeReader::attributes(std::uint32_t file,
                                            const AttributesReader::Visitor& visit) const {
  return attributes_ ? attributes_->list(file, visit) : base::Result<void>();
}

base::Result<std::vector<std::byte>> VolumeReader::wholeFork(std::uint32_t file, ForkKind kind,
                                                             const ForkRecord& record) const {
  if (record.size > kMostValueBytes)
    return base::Error{"an attribute of " + item(file) + " has " + std::to_string(record.size) +
                       " bytes, too many for one piece"};
  const auto map = fork(file, kind, record);
  if (!map) return map.error();
  if (record.size > map->bytes()) return base::Error{item(file) + " has fewer blocks than bytes"};
  std::vector<std::byte> bytes(record.size);
  if (auto got = read(*map, 0, bytes); !got) return got.error();
  return bytes;
}

base::Result<std::vector<std::byte>> VolumeReader::valueOf(std::uint32_t file,
                                                           const StoredAttribute& attribute) const {
  if (!attribute.isFork) return std::vector(attribute.value.begin(), attribute.value.end());
  return wholeFork(file, ForkKind::attribute, attribute.fork);
}

base::Result<std::optional<std::vector<std::byte>>> VolumeReader::attribute(const CatalogRecord& record,
                                                                            std::u16string_view name) const {
  std::optional<std::vector<std::byte>> found;
  const bool isCompressed = (record.ownerFlags & CatalogRecord::kCompressed) != 0;
  if (!record.has(kHasAttributes) && !isCompressed) return found;
  const auto take = [&](const StoredAttribute& attribute) -> base::Result<void> {
    if (attribute.name != name) return {};
    auto value = valueOf(record.id, attribute);
    if (!value) return value.error();
    found = *std::move(value);
    return {};
  };
  if (auto listed = attributes(record.id, take); !listed) return listed.error();
  return found;
}

base::Result<Original> VolumeReader::originalOf(const CatalogRecord& record) const {
  const auto value = attribute(record, Original::kAttributeName);
  if (!value) return value.error();
  if (!*value) return Original();
  auto original = decodeOriginal(**value);
  if (!original) return base::Error{"what was kept of " + item(record.id) + " is damaged"};
  return *std::move(original);
}

base::Result<VolumeReader::Fractions> VolumeReader::fractionsOf(std::uint32_t id) const {
  Fractions fractions{};
  if (!fractions_) return fractions;
  const auto offset = nanosecondsOffset(id);
  std::array<std::byte, kNanosecondsEntryBytes> entry;
  if (!offset || *offset + entry.size() > fractions_->size()) return fractions;
  if (!fractions_->read(*offset, entry)) return base::Error{"the dates of " + item(id) + " cannot be read"};
  base::ByteReader in(entry);
  for (auto& fraction : fractions) {
    fraction = in.get<std::uint32_t>();
    if (fraction >= 1'000'000'000) return base::Error{"the dates of " + item(id) + " are damaged"};
  }
  return fractions;
}

}  // namespace image::hfs
