#include "image/hfs/volume_check.h"

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/byte_order.h"
#include "image/hfs/catalog_format.h"
#include "image/hfs/journal.h"
#include "image/hfs/unicode_name.h"
#include "image/hfs/volume_view.h"

namespace image::hfs {
namespace {

constexpr std::uint32_t kExtentsFileID = 3;
constexpr std::uint32_t kCatalogFileID = 4;
constexpr std::uint32_t kBadBlockFileID = 5;
constexpr std::uint32_t kAllocationFileID = 6;
constexpr std::uint32_t kStartupFileID = 7;
constexpr std::uint32_t kAttributesFileID = 8;
constexpr std::uint32_t kRootFolderID = 2;
constexpr std::uint64_t kHeaderAt = VolumeHeader::kOffset;

constexpr std::uint32_t kHardLinkType = 0x686C6E6B;     // "hlnk"
constexpr std::uint32_t kHardLinkCreator = 0x6866732B;  // "hfs+"

constexpr std::uint8_t kDataFork = 0;
constexpr std::uint8_t kResourceFork = 0xFF;

// The same facts from two sides of a volume, summed up without regard to their order: equal sums mean, but
// for chance, equal facts.
class FactSum {
 public:
  void add(std::initializer_list<std::uint64_t> fact) {
    std::uint64_t hash = 0x9E3779B97F4A7C15;
    for (const std::uint64_t part : fact) hash = mix(hash ^ mix(part));
    first_ += hash;
    second_ += mix(hash ^ 0xD6E8FEB86659FD93);
  }
  friend bool operator==(const FactSum&, const FactSum&) = default;

 private:
  static std::uint64_t mix(std::uint64_t x) {
    x = (x ^ x >> 30) * 0xBF58476D1CE4E5B9;
    x = (x ^ x >> 27) * 0x94D049BB133111EB;
    return x ^ x >> 31;
  }
  std::uint64_t first_ = 0;
  std::uint64_t second_ = 0;
};

std::uint64_t hashOf(std::u16string_view name) { return std::hash<std::u16string_view>{}(name); }

std::u16string getName(base::ByteReader& in) {
  std::u16string name;
  const auto units = in.get<std::uint16_t>();
  for (std::size_t i = 0; i < units && in.ok(); ++i)
    name.push_back(static_cast<char16_t>(in.get<std::uint16_t>()));
  return name;
}

std::string item(std::uint32_t id) { return "item " + std::to_string(id); }

class Check {
 public:
  explicit Check(const block::Disk& disk) : volume_(&disk) {}

  base::Result<VolumeCounts> run() {
    for (const auto step :
         {&Check::readHeader, &Check::replayJournal, &Check::checkAlternateHeader, &Check::readOverflow,
          &Check::checkCatalog, &Check::checkAttributes, &Check::checkAllocation})
      if (auto done = (this->*step)(); !done) return done.error();
    return VolumeCounts{header_.fileCount, header_.folderCount};
  }

 private:
  base::Result<void> readHeader() {
    if (volume_->size() < 4096 || !volume_->read(kHeaderAt, headerBytes_))
      return base::Error{"the volume header cannot be read"};
    auto header = VolumeHeader::decode(headerBytes_, volume_->size());
    if (!header) return header.error();
    header_ = *std::move(header);
    return {};
  }

  base::Result<void> replayJournal() {
    auto journaled = JournaledDisk::replay(*volume_, header_);
    if (!journaled) return journaled.error();
    if (!*journaled) return {};
    journaled_ = *std::move(journaled);
    volume_ = journaled_.get();
    return readHeader();
  }

  // Where the volume was made for some sectors more than its blocks, it stands before the last of those.
  base::Result<void> checkAlternateHeader() {
    const std::uint64_t end = header_.volumeBytes();
    auto same = hasAlternateBefore(end);
    if (same && !*same) same = hasAlternateBefore(volume_->size());
    if (!same) return same.error();
    if (!*same) return base::Error{"the alternate volume header differs from the volume header"};
    used_.resize(header_.totalBlocks);
    // Boot blocks and volume header; alternate volume header and the last sector.
    for (const std::uint64_t at :
         {std::uint64_t{0}, std::uint64_t{512}, kHeaderAt, alternateAt_, alternateAt_ + 512})
      if (at < end) used_[at / header_.blockBytes] = true;
    return {};
  }

  // Counts and dates of the alternate header are allowed to be older.
  base::Result<bool> hasAlternateBefore(std::uint64_t end) {
    constexpr std::size_t kGeometryAt = 40;
    constexpr std::size_t kForksAt = 112;
    std::array<std::byte, 512> bytes;
    alternateAt_ = end - 1024;
    if (end < kHeaderAt + 1024 || !volume_->read(alternateAt_, bytes))
      return base::Error{"the alternate volume header cannot be read"};
    const std::span first(headerBytes_);
    const std::span second(bytes);
    return std::ranges::equal(first.first(4), second.first(4)) &&
           std::ranges::equal(first.subspan(kGeometryAt, 8), second.subspan(kGeometryAt, 8)) &&
           std::ranges::equal(first.subspan(kForksAt), second.subspan(kForksAt));
  }

  base::Result<void> use(std::uint32_t file, const Extent& extent) {
    if (extent.firstBlock > header_.totalBlocks || extent.blocks > header_.totalBlocks - extent.firstBlock)
      return base::Error{item(file) + " has blocks outside the volume"};
    for (std::uint32_t block = extent.firstBlock; block < extent.firstBlock + extent.blocks; ++block) {
      if (used_[block])
        return base::Error{item(file) + " has block " + std::to_string(block) + ", which is used twice"};
      used_[block] = true;
    }
    return {};
  }

  // All extents of a fork, checked and marked as used.
  base::Result<std::vector<Extent>> claim(std::uint32_t file, std::uint8_t kind, const ForkRecord& fork) {
    std::vector<Extent> extents = fork.extents;
    if (const auto more = overflow_.find({file, kind}); more != overflow_.end()) {
      extents.insert(extents.end(), more->second.begin(), more->second.end());
      overflow_.erase(more);
    }
    std::uint64_t blocks = 0;
    for (const Extent& extent : extents) {
      if (auto used = use(file, extent); !used) return used.error();
      blocks += extent.blocks;
    }
    if (blocks != fork.blocks || fork.size > blocks * header_.blockBytes)
      return base::Error{item(file) + " has other blocks than its record says"};
    return extents;
  }

  base::Result<void> readOverflow() {
    auto extents = claim(kExtentsFileID, kDataFork, header_.extentsOverflow);
    if (!extents) return extents.error();
    const ForkView fork(*volume_, header_.blockBytes, header_.extentsOverflow.size, *extents);
    const auto tree = BTreeView::open(fork, "extents overflow file");
    if (!tree) return tree.error();
    return tree->walk(extentsOrder(), [this](const RecordView& record) -> base::Result<void> {
      base::ByteReader key(record.key);
      key.skip(2);
      const auto kind = key.get<std::uint8_t>();
      key.skip(1);
      const auto file = key.get<std::uint32_t>();
      base::ByteReader data(record.data);
      for (int i = 0; i < 8; ++i) {
        const auto first = data.get<std::uint32_t>();
        const auto blocks = data.get<std::uint32_t>();
        if (blocks != 0) overflow_[{file, kind}].push_back({first, blocks});
      }
      if (!key.ok() || !data.ok()) return base::Error{"an overflow record of " + item(file) + " is damaged"};
      return {};
    });
  }

  base::Result<void> checkCatalog() {
    auto extents = claim(kCatalogFileID, kDataFork, header_.catalog);
    if (!extents) return extents.error();
    const ForkView fork(*volume_, header_.blockBytes, header_.catalog.size, *extents);
    const auto tree = BTreeView::open(fork, "catalog file");
    if (!tree) return tree.error();
    if (header_.isX && tree->keyCompareType() == 0xBC) header_.order = NameOrder::binary;
    if (auto walked =
            tree->walk(catalogOrder(header_.order), [this](const RecordView& r) { return visit(r); });
        !walked)
      return walked;
    closeFolder();
    if (!(itemsOfRecords_ == itemsOfThreads_))
      return base::Error{"the catalog's threads are not those of its items"};
    if (!(valencesOfRecords_ == valencesCounted_))
      return base::Error{"a folder counts other items than it has"};
    if (allCountFolders_ && !(subfoldersOfRecords_ == subfoldersCounted_))
      return base::Error{"a folder counts other folders than it has"};
    if (files_ != header_.fileCount || folders_ != header_.folderCount + 1)
      return base::Error{"the volume header counts other files or folders than the catalog has"};
    const bool givesAgain = (header_.attributes & VolumeHeader::kReusesNumbers) != 0;
    if (highestID_ >= header_.nextCatalogID && !givesAgain)
      return base::Error{"the volume header would give a number out again"};
    return checkLinks();
  }

  base::Result<void> visit(const RecordView& record) {
    base::ByteReader key(record.key);
    key.skip(2);
    const auto parent = key.get<std::uint32_t>();
    const std::u16string name = getName(key);
    if (!key.ok() || key.remaining() != 0 || name.size() > kMaxNameUnits)
      return base::Error{"a catalog key below " + item(parent) + " is damaged"};
    base::ByteReader data(record.data);
    const auto type = data.get<std::uint16_t>();
    if (type == 3 || type == 4) return visitThread(type == 3, parent, name, data);
    if (type != 1 && type != 2) return base::Error{"the catalog has a record of an unknown type"};
    if (parent != folder_ && parent != kRootParentID)
      return base::Error{"items stand below " + item(parent) + ", which is no folder"};
    return type == 1 ? visitFolder(parent, name, data) : visitFile(parent, name, data);
  }

  // A thread opens the group of records that have its item as their parent.
  base::Result<void> visitThread(bool ofFolder, std::uint32_t id, const std::u16string& keyName,
                                 base::ByteReader& data) {
    closeFolder();
    data.skip(2);
    const auto parent = data.get<std::uint32_t>();
    const std::u16string name = getName(data);
    if (!data.ok() || !keyName.empty()) return base::Error{"the thread of " + item(id) + " is damaged"};
    itemsOfThreads_.add({id, parent, hashOf(name), ofFolder});
    if (ofFolder) folder_ = id;
    return {};
  }

  void closeFolder() {
    if (folder_ != 0) valencesCounted_.add({folder_, children_});
    if (folder_ != 0) subfoldersCounted_.add({folder_, subfolders_});
    folder_ = children_ = subfolders_ = 0;
  }

  base::Result<void> visitItem(std::uint32_t id, std::uint32_t parent, const std::u16string& name,
                               bool isFolder) {
    if (id != kRootFolderID && id < 16)
      return base::Error{item(parent) + " has an item with a reserved number"};
    itemsOfRecords_.add({id, parent, hashOf(name), isFolder});
    highestID_ = std::max(highestID_, id);
    if (parent == kRootParentID) return {};
    ++children_;
    if (isFolder) ++subfolders_;
    return {};
  }

  base::Result<void> visitFolder(std::uint32_t parent, const std::u16string& name, base::ByteReader& data) {
    const auto flags = data.get<std::uint16_t>();
    const auto valence = data.get<std::uint32_t>();
    const auto id = data.get<std::uint32_t>();
    data.skip(5 * 4 + 16 + 32 + 4);
    const auto subfolders = data.get<std::uint32_t>();
    if (!data.ok()) return base::Error{"the record of " + item(id) + " is damaged"};
    ++folders_;
    valencesOfRecords_.add({id, valence});
    subfoldersOfRecords_.add({id, subfolders});
    allCountFolders_ = allCountFolders_ && (flags & kHasFolderCount) != 0;
    if ((flags & kHasAttributes) != 0) flagged_.insert(id);
    return visitItem(id, parent, name, true);
  }

  base::Result<void> visitFile(std::uint32_t parent, const std::u16string& name, base::ByteReader& data) {
    const auto flags = data.get<std::uint16_t>();
    data.skip(4);
    const auto id = data.get<std::uint32_t>();
    data.skip(5 * 4 + 4 + 4 + 2 + 2);
    const auto special = data.get<std::uint32_t>();
    const auto type = data.get<std::uint32_t>();
    const auto creator = data.get<std::uint32_t>();
    data.skip(8 + 16 + 4 + 4);
    const ForkRecord dataFork = getFork(data);
    const ForkRecord resourceFork = getFork(data);
    if (!data.ok()) return base::Error{"the record of " + item(id) + " is damaged"};
    ++files_;
    if ((flags & kHasThread) == 0) return base::Error{item(id) + " does not say that it has a thread"};
    if ((flags & kHasAttributes) != 0) flagged_.insert(id);
    if (type == kHardLinkType && creator == kHardLinkCreator) ++linksTo_[special];
    if (name.starts_with(u"iNode")) indirect_[parent][name] = special;
    if (auto used = claim(id, kDataFork, dataFork); !used) return used.error();
    if (auto used = claim(id, kResourceFork, resourceFork); !used) return used.error();
    return visitItem(id, parent, name, false);
  }

  // Each number that links name is that of an indirect node, which counts them.
  base::Result<void> checkLinks() const {
    for (const auto& [target, count] : linksTo_) {
      const std::string digits = std::to_string(target);
      const std::u16string name = u"iNode" + std::u16string(digits.begin(), digits.end());
      const bool known = std::ranges::any_of(indirect_, [&, links = count](const auto& folder) {
        const auto node = folder.second.find(name);
        return node != folder.second.end() && node->second == links;
      });
      if (!known) return base::Error{"hard links to " + item(target) + " are not those that it counts"};
    }
    return {};
  }

  base::Result<void> checkAttributes() {
    if (header_.attributesFile.blocks == 0)
      return flagged_.empty() ? base::Result<void>() : missingAttributes();
    auto extents = claim(kAttributesFileID, kDataFork, header_.attributesFile);
    if (!extents) return extents.error();
    const ForkView fork(*volume_, header_.blockBytes, header_.attributesFile.size, *extents);
    const auto tree = BTreeView::open(fork, "attributes file");
    if (!tree) return tree.error();
    std::unordered_set<std::uint32_t> found;
    const auto visitAttribute = [&](const RecordView& record) -> base::Result<void> {
      base::ByteReader key(record.key);
      key.skip(4);
      const auto file = key.get<std::uint32_t>();
      found.insert(file);
      if (!flagged_.contains(file)) return base::Error{item(file) + " has attributes without saying so"};
      return claimAttribute(file, record.data);
    };
    if (auto walked = tree->walk(attributesOrder(), visitAttribute); !walked) return walked;
    return found == flagged_ ? base::Result<void>() : missingAttributes();
  }

  static base::Result<void> missingAttributes() { return base::Error{"an item's attributes are missing"}; }

  base::Result<void> claimAttribute(std::uint32_t file, std::span<const std::byte> bytes) {
    const base::Error damaged{"an attribute of " + item(file) + " is damaged"};
    base::ByteReader data(bytes);
    const auto type = data.get<std::uint32_t>();
    if (type == 0x10) {
      data.skip(8);
      const auto size = data.get<std::uint32_t>();
      return data.ok() && size <= data.remaining() ? base::Result<void>() : damaged;
    }
    if (type != 0x20 && type != 0x30) return damaged;
    data.skip(4);
    if (type == 0x20) {
      const ForkRecord fork = getFork(data);
      if (!data.ok()) return damaged;
      for (const Extent& extent : fork.extents)
        if (auto used = use(file, extent); !used) return used;
      return {};
    }
    for (int i = 0; i < 8 && data.remaining() >= 8; ++i) {
      const auto first = data.get<std::uint32_t>();
      const auto blocks = data.get<std::uint32_t>();
      if (blocks == 0) continue;
      if (auto used = use(file, {first, blocks}); !used) return used;
    }
    return {};
  }

  // They belong to a file of which there is nothing but overflow records.
  base::Result<void> claimBadBlocks() {
    const auto bad = overflow_.extract({kBadBlockFileID, kDataFork});
    if (bad.empty()) return {};
    for (const Extent& extent : bad.mapped())
      if (auto used = use(kBadBlockFileID, extent); !used) return used;
    return {};
  }

  // That nothing uses a block which is marked harms nobody, and some makers mark all blocks of a full volume.
  base::Result<void> checkAllocation() {
    auto extents = claim(kAllocationFileID, kDataFork, header_.allocation);
    if (!extents) return extents.error();
    if (auto startup = claim(kStartupFileID, kDataFork, header_.startupFile); !startup)
      return startup.error();
    if (auto bad = claimBadBlocks(); !bad) return bad;
    if (!overflow_.empty())
      return base::Error{"overflow records of " + item(overflow_.begin()->first.first) + " have no file"};
    const ForkView fork(*volume_, header_.blockBytes, header_.allocation.size, *extents);
    std::vector<std::byte> piece(1 << 16);
    std::uint64_t freeBlocks = 0;
    for (std::uint64_t block = 0; block < header_.totalBlocks; ++block) {
      const std::size_t at = block / 8 % piece.size();
      if (block % (piece.size() * 8) == 0) {
        const auto rest = std::min<std::uint64_t>(piece.size(), (header_.totalBlocks + 7) / 8 - block / 8);
        if (!fork.read(block / 8, std::span(piece).first(rest)))
          return base::Error{"the allocation file cannot be read"};
      }
      const bool marked = (piece[at] >> (7 - block % 8) & std::byte{1}) != std::byte{0};
      if (used_[block] && !marked)
        return base::Error{"the allocation file has block " + std::to_string(block) +
                           ", which is used, as free"};
      if (!marked) ++freeBlocks;
    }
    if (freeBlocks != header_.freeBlocks)
      return base::Error{"the volume header counts other free blocks than there are"};
    return {};
  }

  const block::Disk* volume_;
  std::unique_ptr<JournaledDisk> journaled_;
  std::array<std::byte, 512> headerBytes_{};
  VolumeHeader header_;
  std::uint64_t alternateAt_ = 0;
  std::vector<bool> used_;
  // Extents beyond the eighth, by file and fork; whoever claims them takes them out.
  std::map<std::pair<std::uint32_t, std::uint8_t>, std::vector<Extent>> overflow_;

  FactSum itemsOfRecords_;
  FactSum itemsOfThreads_;
  FactSum valencesOfRecords_;
  FactSum valencesCounted_;
  // Only folders of HFSX count their folders, and not those that old systems made.
  FactSum subfoldersOfRecords_;
  FactSum subfoldersCounted_;
  bool allCountFolders_ = true;
  // The folder whose items the walk is passing, or 0.
  std::uint32_t folder_ = 0;
  std::uint32_t children_ = 0;
  std::uint32_t subfolders_ = 0;
  std::uint32_t files_ = 0;
  std::uint32_t folders_ = 0;
  std::uint32_t highestID_ = 0;
  std::unordered_set<std::uint32_t> flagged_;
  std::unordered_map<std::uint32_t, std::uint32_t> linksTo_;
  std::map<std::uint32_t, std::map<std::u16string, std::uint32_t>> indirect_;
};

}  // namespace

base::Result<VolumeCounts> checkVolume(const block::Disk& disk) { return Check(disk).run(); }

}  // namespace image::hfs
