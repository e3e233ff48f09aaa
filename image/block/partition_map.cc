#include "image/block/partition_map.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "base/byte_order.h"
#include "base/unicode.h"
#include "image/block/guid_partition_table.h"

namespace image::block {
namespace {

constexpr std::uint64_t kSector = 512;
constexpr std::uint64_t kVolumeHeaderOffset = 1024;
constexpr std::uint16_t kHFSPlus = 0x482B;  // "H+"
constexpr std::uint16_t kHFSX = 0x4858;     // "HX"
constexpr std::uint16_t kHFS = 0x4244;      // "BD"
constexpr std::uint8_t kProtective = 0xEE;
constexpr std::uint8_t kMBRTypeHFS = 0xAF;
// More than any map in use has; what claims more is damaged.
constexpr std::uint32_t kMostEntries = 4096;

// Of a disk whose bytes can be counted.
constexpr std::uint64_t kMostSectors = std::uint64_t{1} << 54;

base::Result<std::vector<std::byte>> bytesAt(const Disk& disk, std::uint64_t offset, std::size_t count) {
  std::vector<std::byte> bytes(count);
  if (auto read = disk.readChecked(offset, bytes); !read)
    return base::Error{"the partition map cannot be read: " + read.error().message};
  return bytes;
}

std::string hex(std::byte value) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  return {kDigits[std::to_integer<std::size_t>(value) >> 4],
          kDigits[std::to_integer<std::size_t>(value) & 15]};
}

bool isVolumeSignature(std::uint16_t signature) { return signature == kHFSPlus || signature == kHFSX; }

// The first bytes of a volume header; all zeros where the extent has no room for one.
base::Result<std::vector<std::byte>> volumeHeader(const Disk& disk, const Extent& extent) {
  if (extent.size < kVolumeHeaderOffset + kSector) return std::vector<std::byte>(kSector);
  return bytesAt(disk, extent.offset + kVolumeHeaderOffset, kSector);
}

// Where the master directory block of an HFS volume says that it embeds an HFS+ volume.
std::optional<Extent> embeddedExtent(std::span<const std::byte> block, const Extent& wrapper) {
  const auto blockBytes = base::loadBigEndian<std::uint32_t>(&block[20]);
  const std::uint64_t firstBlock = base::loadBigEndian<std::uint16_t>(&block[28]) * kSector;
  const std::uint64_t start = base::loadBigEndian<std::uint16_t>(&block[126]);
  const std::uint64_t count = base::loadBigEndian<std::uint16_t>(&block[128]);
  const Extent inside{firstBlock + start * blockBytes, count * blockBytes};
  if (!isVolumeSignature(base::loadBigEndian<std::uint16_t>(&block[124])) ||
      !liesWithin(inside.offset, inside.size, wrapper.size))
    return std::nullopt;
  return Extent{wrapper.offset + inside.offset, inside.size};
}

// Of a volume whose own header is lost, before its last sector.
base::Result<bool> hasAlternateHeader(const Disk& disk, const Extent& extent) {
  if (extent.size < 2 * kVolumeHeaderOffset + kSector) return false;
  const auto header = bytesAt(disk, extent.offset + extent.size - kVolumeHeaderOffset, kSector);
  if (!header) return header.error();
  return isVolumeSignature(base::loadBigEndian<std::uint16_t>(header->data()));
}

// Sets what volume the partition holds.
base::Result<void> findVolume(const Disk& disk, Partition& partition, bool typeSaysHFS) {
  const auto header = volumeHeader(disk, partition.extent);
  if (!header) return header.error();
  const auto signature = base::loadBigEndian<std::uint16_t>(header->data());
  if (signature == kHFS)
    partition.hfsPlus = embeddedExtent(*header, partition.extent);
  else if (isVolumeSignature(signature) || typeSaysHFS)
    partition.hfsPlus = partition.extent;
  partition.isOlderHFS = signature == kHFS && !partition.hfsPlus;
  return {};
}

// Takes the entries of a map, of whatever kind it is, in order.
class Collector {
 public:
  Collector(const Disk& disk, PartitionScheme scheme) : disk_(disk) { map_.scheme = scheme; }

  // Of entries that reach past the disk's end only those that are wanted are worth an error.
  base::Result<void> add(Partition partition, bool typeSaysHFS) {
    if (!liesWithin(partition.extent.offset, partition.extent.size, disk_.size())) {
      if (!typeSaysHFS) return {};
      return base::Error{"the partition " + partition.name + " (" + partition.type +
                         ") reaches past the end of the disk"};
    }
    if (auto found = findVolume(disk_, partition, typeSaysHFS); !found) return found;
    map_.partitions.push_back(std::move(partition));
    return {};
  }
  PartitionMap take() { return std::move(map_); }

 private:
  const Disk& disk_;
  PartitionMap map_;
};

std::string guidText(std::span<const std::byte> guid) {
  constexpr std::array<std::size_t, 16> kOrder{3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  std::string text;
  for (std::size_t i = 0; i < kOrder.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += hex(guid[kOrder[i]]);
  }
  return text;
}

std::string guidName(std::span<const std::byte> units) {
  std::u16string name;
  for (std::size_t at = 0; at + 2 <= units.size(); at += 2) {
    const auto unit = loadLittleEndian<std::uint16_t>(&units[at]);
    if (unit == 0) break;
    name += static_cast<char16_t>(unit);
  }
  return base::utf8FromUTF16(name);
}

struct GUIDTable {
  std::vector<std::byte> entries;
  std::size_t entryBytes;
  std::uint64_t sectorBytes;
};

bool isTableHeader(std::span<const std::byte> sector) {
  const auto headerBytes = loadLittleEndian<std::uint32_t>(&sector[12]);
  if (!std::ranges::equal(sector.first(kTableHeaderSignature.size()),
                          std::as_bytes(std::span(kTableHeaderSignature))) ||
      headerBytes < kTableHeaderBytes || headerBytes > kSector)
    return false;
  std::vector<std::byte> header(sector.begin(), sector.begin() + headerBytes);
  storeLittleEndian(&header[16], std::uint32_t{0});
  return crc32(header) == loadLittleEndian<std::uint32_t>(&sector[16]);
}

// The entries that the header in a sector tells of; nullopt when one of them is damaged or not there.
base::Result<std::optional<GUIDTable>> tableAt(const Disk& disk, std::uint64_t sector,
                                               std::uint64_t sectorBytes) {
  constexpr std::size_t kLeastEntryBytes = 128;
  const auto header = bytesAt(disk, sector * sectorBytes, kSector);
  if (!header) return header.error();
  if (!isTableHeader(*header)) return std::optional<GUIDTable>();
  const auto first = loadLittleEndian<std::uint64_t>(&(*header)[72]);
  const auto count = loadLittleEndian<std::uint32_t>(&(*header)[80]);
  const auto entryBytes = loadLittleEndian<std::uint32_t>(&(*header)[84]);
  if (count > kMostEntries || entryBytes < kLeastEntryBytes || entryBytes > kSector * 8 ||
      entryBytes % 8 != 0 || first > disk.size() / sectorBytes ||
      !liesWithin(first * sectorBytes, std::uint64_t{count} * entryBytes, disk.size()))
    return std::optional<GUIDTable>();
  auto entries = bytesAt(disk, first * sectorBytes, std::size_t{count} * entryBytes);
  if (!entries) return entries.error();
  if (crc32(*entries) != loadLittleEndian<std::uint32_t>(&(*header)[88])) return std::optional<GUIDTable>();
  return std::optional(GUIDTable{*std::move(entries), entryBytes, sectorBytes});
}

base::Result<std::optional<GUIDTable>> findTable(const Disk& disk) {
  for (const std::uint64_t sectorBytes : {std::uint64_t{512}, std::uint64_t{4096}}) {
    const std::uint64_t sectors = disk.size() / sectorBytes;
    for (const std::uint64_t sector : {std::uint64_t{1}, sectors - 1}) {
      if (sectors < 2) continue;
      auto table = tableAt(disk, sector, sectorBytes);
      if (!table || *table) return table;
    }
  }
  return std::optional<GUIDTable>();
}

base::Result<PartitionMap> readGUIDTable(const Disk& disk, const GUIDTable& table) {
  Collector partitions(disk, PartitionScheme::guid);
  for (std::size_t at = 0; at < table.entries.size(); at += table.entryBytes) {
    const auto entry = std::span(table.entries).subspan(at, table.entryBytes);
    const auto type = entry.first(16);
    const auto first = loadLittleEndian<std::uint64_t>(&entry[32]);
    const auto last = loadLittleEndian<std::uint64_t>(&entry[40]);
    if (std::ranges::all_of(type, [](std::byte b) { return b == std::byte{0}; })) continue;
    if (last < first || last >= kMostSectors / (table.sectorBytes / kSector))
      return base::Error{"the GUID partition table has a partition that ends before it begins"};
    const bool isHFS = std::ranges::equal(std::as_bytes(std::span(kHFSPartitionType)), type);
    auto added =
        partitions.add({.extent = {first * table.sectorBytes, (last - first + 1) * table.sectorBytes},
                        .type = guidText(type),
                        .name = guidName(entry.subspan(56, 72))},
                       isHFS);
    if (!added) return added.error();
  }
  return partitions.take();
}

std::string padded(std::span<const std::byte> field) {
  const std::string text(reinterpret_cast<const char*>(field.data()), field.size());
  return base::repairedUTF8(text.substr(0, text.find('\0')));
}

bool isAppleEntry(std::span<const std::byte> block) {
  return base::loadBigEndian<std::uint16_t>(block.data()) == 0x504D;  // "PM"
}

// In bytes, of the blocks that an Apple partition map counts in; 0 where there is no such map.
base::Result<std::uint64_t> appleBlockBytes(const Disk& disk) {
  for (const std::uint64_t size : {512, 2048}) {
    if (!liesWithin(size, kSector, disk.size())) continue;
    const auto entry = bytesAt(disk, size, kSector);
    if (!entry) return entry.error();
    if (isAppleEntry(*entry)) return size;
  }
  return std::uint64_t{0};
}

base::Result<PartitionMap> readAppleMap(const Disk& disk, std::uint64_t blockBytes) {
  Collector partitions(disk, PartitionScheme::apple);
  std::uint32_t count = 1;
  for (std::uint32_t i = 1; i <= count; ++i) {
    const auto entry = bytesAt(disk, i * blockBytes, kSector);
    if (!entry) return entry.error();
    if (!isAppleEntry(*entry))
      return base::Error{"entry " + std::to_string(i) + " of the partition map is damaged"};
    if (i == 1) count = base::loadBigEndian<std::uint32_t>(&(*entry)[4]);
    if (count > kMostEntries) return base::Error{"the partition map is damaged: it has too many entries"};
    const std::string type = padded(std::span(*entry).subspan(48, 32));
    if (type == "Apple_Free") continue;
    auto added = partitions.add({.extent = {base::loadBigEndian<std::uint32_t>(&(*entry)[8]) * blockBytes,
                                            base::loadBigEndian<std::uint32_t>(&(*entry)[12]) * blockBytes},
                                 .type = type,
                                 .name = padded(std::span(*entry).subspan(16, 32))},
                                type == "Apple_HFS" || type == "Apple_HFSX");
    if (!added) return added.error();
  }
  return partitions.take();
}

constexpr std::size_t kMBREntries = 446;
constexpr std::size_t kMBREntryBytes = 16;

bool isMasterBootRecord(std::span<const std::byte> sector) {
  return sector[510] == std::byte{0x55} && sector[511] == std::byte{0xAA};
}

// The types of its four entries.
std::array<std::uint8_t, 4> mbrTypes(std::span<const std::byte> sector) {
  std::array<std::uint8_t, 4> types;
  for (std::size_t i = 0; i < types.size(); ++i)
    types[i] = std::to_integer<std::uint8_t>(sector[kMBREntries + i * kMBREntryBytes + 4]);
  return types;
}

base::Result<PartitionMap> readMasterBootRecord(const Disk& disk, std::span<const std::byte> sector) {
  Collector partitions(disk, PartitionScheme::masterBootRecord);
  const auto types = mbrTypes(sector);
  for (std::size_t i = 0; i < types.size(); ++i) {
    const auto entry = sector.subspan(kMBREntries + i * kMBREntryBytes, kMBREntryBytes);
    const Extent extent{loadLittleEndian<std::uint32_t>(&entry[8]) * kSector,
                        loadLittleEndian<std::uint32_t>(&entry[12]) * kSector};
    if (types[i] == 0 || extent.size == 0) continue;
    auto added =
        partitions.add({.extent = extent, .type = "0x" + hex(std::byte{types[i]})}, types[i] == kMBRTypeHFS);
    if (!added) return added.error();
  }
  return partitions.take();
}

base::Result<PartitionMap> readBareVolume(const Disk& disk) {
  Collector partitions(disk, PartitionScheme::none);
  if (auto added = partitions.add({.extent = {0, disk.size()}, .type = "Apple_HFS"}, false); !added)
    return added.error();
  auto map = partitions.take();
  if (!map.partitions[0].hfsPlus && !map.partitions[0].isOlderHFS) map.partitions.clear();
  return map;
}

base::Result<PartitionMap> readBareVolumeByItsEnd(const Disk& disk) {
  const Extent whole{0, disk.size()};
  const auto found = hasAlternateHeader(disk, whole);
  if (!found) return found.error();
  if (!*found) return PartitionMap{};
  return PartitionMap{.partitions = {{.extent = whole, .type = "Apple_HFS", .hfsPlus = whole}}};
}

}  // namespace

// What can prove itself goes first: boot blocks of volumes and other maps may carry the mark of a master boot
// record.
base::Result<PartitionMap> PartitionMap::read(const Disk& disk) {
  if (disk.size() < 2 * kSector) return PartitionMap{};
  const auto table = findTable(disk);
  if (!table) return table.error();
  if (*table) return readGUIDTable(disk, **table);
  auto bare = readBareVolume(disk);
  if (!bare || !bare->partitions.empty()) return bare;
  const auto blockBytes = appleBlockBytes(disk);
  if (!blockBytes) return blockBytes.error();
  if (*blockBytes != 0) return readAppleMap(disk, *blockBytes);
  const auto boot = bytesAt(disk, 0, kSector);
  if (!boot) return boot.error();
  if (!isMasterBootRecord(*boot)) return readBareVolumeByItsEnd(disk);
  if (std::ranges::count(mbrTypes(*boot), kProtective) != 0)
    return base::Error{"both copies of the GUID partition table are damaged"};
  return readMasterBootRecord(disk, *boot);
}

}  // namespace image::block
