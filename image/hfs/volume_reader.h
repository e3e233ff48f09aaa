#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "base/result.h"
#include "image/block/disk.h"
#include "image/hfs/attributes_reader.h"
#include "image/hfs/catalog_reader.h"
#include "image/hfs/journal.h"
#include "image/hfs/original.h"
#include "image/hfs/volume_view.h"

namespace image::hfs {

// An attribute's own fork has no overflow records; all others are numbered as in those.
enum class ForkKind : std::uint8_t { data = 0x00, attribute = 0x01, resource = 0xFF };

// The longest attribute value, or resource fork, that is handed out in one piece.
inline constexpr std::uint64_t kMostValueBytes = std::uint64_t{1} << 28;

// An HFS+ or HFSX volume of any maker: its catalog, hard links, forks and attributes. Everything is checked
// where it is met, and only there: hfs::checkVolume looks at a volume as a whole. Any number of threads may
// call.
class VolumeReader {
 public:
  // The disk outlives the reader. cacheBytes: of tree nodes that are kept.
  static base::Result<std::unique_ptr<VolumeReader>> open(const block::Disk& disk, std::uint64_t cacheBytes);

  const VolumeHeader& header() const { return header_; }
  const CatalogReader& catalog() const { return *catalog_; }

  // What a hard link stands for; any other record as it is.
  base::Result<CatalogRecord> resolved(CatalogRecord record) const;
  // How many hard links an item has; 1 for one that never had any.
  std::uint32_t linksOf(const CatalogRecord& record) const;
  // Whether the file system keeps it for itself.
  bool isHidden(const CatalogRecord& record) const;

  // With the extents that stand in the overflow file. Each lies inside the volume.
  base::Result<ForkMap> fork(std::uint32_t file, ForkKind kind, const ForkRecord& record) const;
  // Bytes that lie wholly inside the fork; what has no blocks reads as zeros.
  base::Result<void> read(const ForkMap& fork, std::uint64_t offset, std::span<std::byte> into) const;

  // In the order of their names; none where the volume has no attributes file.
  base::Result<void> attributes(std::uint32_t file, const AttributesReader::Visitor& visit) const;
  base::Result<std::vector<std::byte>> valueOf(std::uint32_t file, const StoredAttribute& attribute) const;
  base::Result<std::vector<std::byte>> wholeFork(std::uint32_t file, ForkKind kind,
                                                 const ForkRecord& record) const;
  // The value of the item's attribute of that stored name; nullopt where it has none, or says neither that
  // it has attributes nor that its data are in one.
  base::Result<std::optional<std::vector<std::byte>>> attribute(const CatalogRecord& record,
                                                                std::u16string_view name) const;
  // What was kept of the item beside its record.
  base::Result<Original> originalOf(const CatalogRecord& record) const;

  // Fractions of the dates created, modified, changed and accessed.
  using Fractions = std::array<std::uint32_t, 4>;
  base::Result<Fractions> fractionsOf(std::uint32_t id) const;

 private:
  explicit VolumeReader(const block::Disk& disk) : disk_(&disk) {}

  // From the alternate header where the other is none.
  base::Result<void> readHeader();
  base::Result<void> replayJournal();
  base::Result<void> openTrees(std::uint64_t cacheBytes);
  base::Result<void> openCatalog(std::uint64_t cacheBytes);
  base::Result<void> openStartupFile();
  base::Result<void> findPrivateFolders();
  base::Result<std::vector<Extent>> extentsOf(std::uint32_t file, ForkKind kind,
                                              const ForkRecord& record) const;
  bool isFileLink(const CatalogRecord& record) const;
  bool isFolderLink(const CatalogRecord& record) const;

  // Where the volume's journal has something to say.
  std::unique_ptr<JournaledDisk> journaled_;
  const block::Disk* disk_;
  VolumeHeader header_;
  std::unique_ptr<ForkView> overflowFork_;
  std::unique_ptr<BTreeReader> overflow_;
  std::unique_ptr<ForkView> catalogFork_;
  std::unique_ptr<CatalogReader> catalog_;
  std::unique_ptr<ForkView> attributesFork_;
  std::unique_ptr<AttributesReader> attributes_;
  // Where the startup file holds the fractions of the dates.
  std::unique_ptr<ForkView> fractions_;
  // The folders of the hard-linked files and folders.
  std::optional<CatalogRecord> linkedFiles_;
  std::optional<CatalogRecord> linkedFolders_;
  std::uint32_t rootCreated_ = 0;
};

}  // namespace image::hfs
