#include "image/block/partitioned_disk.h"

#include <algorithm>
#include <bit>
#include <string_view>

#include "image/block/guid_partition_table.h"
#include "image/block/zeros.h"

namespace image::block {
namespace {

constexpr std::uint64_t kEntries = 128;
constexpr std::size_t kEntryBytes = 128;
constexpr std::uint64_t kTableSectors = kEntries * kEntryBytes / kSectorBytes;
constexpr std::uint64_t kFirstUsableSector = 2 + kTableSectors;
// Free sectors behind the partition, then the backup table and header.
constexpr std::uint64_t kTrailingFreeSectors = 7;
constexpr std::uint64_t kBackSectors = kTrailingFreeSectors + kTableSectors + 1;

struct Geometry {
  std::uint64_t sectors;
  std::uint64_t volumeSectors;
};

std::vector<std::byte> makeTable(const Geometry& disk, const GUID& partitionGUID) {
  std::vector<std::byte> table(kTableSectors * kSectorBytes);
  std::ranges::transform(kHFSPartitionType, table.begin(), [](std::uint8_t b) { return std::byte{b}; });
  std::ranges::copy(partitionGUID, table.begin() + 16);
  storeLittleEndian(table.data() + 32, PartitionedDisk::kPartitionSector);
  storeLittleEndian(table.data() + 40, PartitionedDisk::kPartitionSector + disk.volumeSectors - 1);
  constexpr std::u16string_view kName = u"disk image";
  for (std::size_t i = 0; i < kName.size(); ++i)
    storeLittleEndian(table.data() + 56 + 2 * i, static_cast<std::uint16_t>(kName[i]));
  return table;
}

struct HeaderPlace {
  std::uint64_t own;
  std::uint64_t other;
  std::uint64_t table;
};

void storeHeader(std::span<std::byte> sector, const Geometry& disk, const HeaderPlace& place,
                 const GUID& diskGUID, std::span<const std::byte> table) {
  std::ranges::copy(std::as_bytes(std::span(kTableHeaderSignature)), sector.begin());
  std::byte* const at = sector.data();
  storeLittleEndian(at + 8, std::uint32_t{0x00010000});
  storeLittleEndian(at + 12, std::uint32_t{kTableHeaderBytes});
  storeLittleEndian(at + 24, place.own);
  storeLittleEndian(at + 32, place.other);
  storeLittleEndian(at + 40, kFirstUsableSector);
  storeLittleEndian(at + 48, disk.sectors - kTableSectors - 2);
  std::ranges::copy(diskGUID, sector.begin() + 56);
  storeLittleEndian(at + 72, place.table);
  storeLittleEndian(at + 80, static_cast<std::uint32_t>(kEntries));
  storeLittleEndian(at + 84, static_cast<std::uint32_t>(kEntryBytes));
  storeLittleEndian(at + 88, crc32(table));
  storeLittleEndian(at + 16, crc32(sector.first(kTableHeaderBytes)));
}

void storeProtectiveMBR(std::span<std::byte> sector, std::uint64_t diskSectors) {
  constexpr std::array<std::uint8_t, 8> kWholeDisk{0x00, 0x00, 0x02, 0x00, 0xEE, 0xFF, 0xFF, 0xFF};
  std::ranges::transform(kWholeDisk, sector.begin() + 446, [](std::uint8_t b) { return std::byte{b}; });
  storeLittleEndian(sector.data() + 454, std::uint32_t{1});
  storeLittleEndian(sector.data() + 458,
                    static_cast<std::uint32_t>(std::min<std::uint64_t>(diskSectors - 1, 0xFFFFFFFF)));
  sector[510] = std::byte{0x55};
  sector[511] = std::byte{0xAA};
}

}  // namespace

PartitionedDisk::PartitionedDisk(const Content& volume, const GUID& diskGUID, const GUID& partitionGUID)
    : volume_(volume), front_(kPartitionSector * kSectorBytes), back_(kBackSectors * kSectorBytes) {
  const Geometry disk{size() / kSectorBytes, volume.size() / kSectorBytes};
  const auto table = makeTable(disk, partitionGUID);
  const std::span front(front_);
  const std::span back(back_);
  storeProtectiveMBR(front.first(kSectorBytes), disk.sectors);
  storeHeader(front.subspan(kSectorBytes, kSectorBytes), disk, {1, disk.sectors - 1, 2}, diskGUID, table);
  std::ranges::copy(table, front.begin() + 2 * kSectorBytes);
  std::ranges::copy(table, back.begin() + kTrailingFreeSectors * kSectorBytes);
  storeHeader(back.last(kSectorBytes), disk, {disk.sectors - 1, 1, disk.sectors - 1 - kTableSectors},
              diskGUID, table);
}

std::uint64_t PartitionedDisk::size() const { return front_.size() + volume_.size() + back_.size(); }

std::vector<Region> PartitionedDisk::regions() const {
  const std::uint64_t volumeSectors = volume_.size() / kSectorBytes;
  const std::uint64_t back = kPartitionSector + volumeSectors;
  return {{"Protective Master Boot Record (MBR : 0)", 0, 1},
          {"GPT Header (Primary GPT Header : 1)", 1, 1},
          {"GPT Partition Data (Primary GPT Table : 2)", 2, kTableSectors},
          {" (Apple_Free : 3)", kFirstUsableSector, kPartitionSector - kFirstUsableSector},
          {"disk image (Apple_HFS : 4)", kPartitionSector, volumeSectors},
          {" (Apple_Free : 5)", back, kTrailingFreeSectors},
          {"GPT Partition Data (Backup GPT Table : 6)", back + kTrailingFreeSectors, kTableSectors},
          {"GPT Header (Backup GPT Header : 7)", back + kTrailingFreeSectors + kTableSectors, 1}};
}

class PartitionedDisk::Reader : public ContentReader {
 public:
  explicit Reader(const PartitionedDisk& disk) : disk_(disk), volume_(disk.volume_.openReader()) {}

  base::Result<Filled> read(std::uint64_t offset, std::span<std::byte> into) override {
    const std::uint64_t begin = disk_.front_.size();
    const std::uint64_t end = begin + disk_.volume_.size();
    if (offset >= begin && offset + into.size() <= end) return volume_->read(offset - begin, into);
    fillZeros(into);
    copyOverlap(disk_.front_, 0, into, offset);
    copyOverlap(disk_.back_, end, into, offset);
    if (offset >= end || offset + into.size() <= begin) return Filled::data;
    const std::uint64_t from = std::max(offset, begin);
    const auto part = into.subspan(from - offset, std::min(end, offset + into.size()) - from);
    auto filled = volume_->read(from - begin, part);
    if (!filled) return filled.error();
    return Filled::data;
  }

 private:
  const PartitionedDisk& disk_;
  std::unique_ptr<ContentReader> volume_;
};

std::unique_ptr<ContentReader> PartitionedDisk::openReader() const { return std::make_unique<Reader>(*this); }

}  // namespace image::block
