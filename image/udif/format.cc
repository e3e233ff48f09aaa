#include "image/udif/format.h"

#include <algorithm>
#include <charconv>

#include "base/byte_order.h"
#include "image/codec/checksum.h"

namespace image::udif {
namespace {

constexpr std::uint32_t kTableSignature = 0x6D697368;    // "mish"
constexpr std::uint32_t kTrailerSignature = 0x6B6F6C79;  // "koly"
constexpr std::uint32_t kNoChecksum = 0;
constexpr std::uint32_t kCRC32Checksum = 2;
constexpr std::uint32_t kMostKinds = 16;
constexpr std::uint32_t kCRC32Bits = 32;
constexpr std::size_t kChecksumBytes = 128;
constexpr std::size_t kRunBytes = 40;
// Entry attributes and the size of the `plst` record, as they stand in the images of the format's own tool.
constexpr std::string_view kEntryAttributes = "0x0050";
constexpr std::size_t kPlstBytes = 1032;

void putChecksum(std::optional<std::uint32_t> sum, base::ByteWriter& out) {
  out.put(sum ? kCRC32Checksum : kNoChecksum)
      .put(sum ? kCRC32Bits : 0u)
      .put(sum.value_or(0))
      .zeros(kChecksumBytes - 4);
}

// Other makers may use sums of other kinds, which are longer; nobody looks at them. False for a sum that lost
// its kind: a value without one, or another kind with the length of ours.
bool getChecksum(base::ByteReader& in, std::optional<std::uint32_t>& sum) {
  const auto type = in.get<std::uint32_t>();
  const auto bits = in.get<std::uint32_t>();
  const auto value = in.get<std::uint32_t>();
  in.skip(kChecksumBytes - 4);
  if (type == kCRC32Checksum) sum = value;
  if (type == kCRC32Checksum) return bits == kCRC32Bits;
  if (type == kNoChecksum) return value == 0;
  return type <= kMostKinds && bits > kCRC32Bits && bits <= 8 * kChecksumBytes;
}

void putRun(const Run& run, base::ByteWriter& out) {
  out.put(static_cast<std::uint32_t>(run.type)).put(std::uint32_t{0});
  out.put(run.firstSector).put(run.sectorCount).put(run.offset).put(run.length);
}

Run getRun(base::ByteReader& in) {
  Run run;
  run.type = static_cast<RunType>(in.get<std::uint32_t>());
  in.skip(4);
  run.firstSector = in.get<std::uint64_t>();
  run.sectorCount = in.get<std::uint64_t>();
  run.offset = in.get<std::uint64_t>();
  run.length = in.get<std::uint64_t>();
  return run;
}

bool liesWithin(std::uint64_t first, std::uint64_t count, std::uint64_t whole) {
  return first <= whole && count <= whole - first;
}

base::PropertyList::Dictionary resource(std::string_view id, std::string_view name,
                                        std::vector<std::byte> data) {
  return {{"Attributes", kEntryAttributes}, {"Data", std::move(data)}, {"ID", id}, {"Name", name}};
}

}  // namespace

std::vector<std::byte> encodeTable(const BlockTable& table, std::uint64_t endOffset) {
  std::vector<std::byte> bytes;
  bytes.reserve(204 + kRunBytes * (table.runs.size() + 1));
  base::ByteWriter out(bytes);
  out.put(kTableSignature)
      .put(std::uint32_t{1})
      .put(table.firstSector)
      .put(table.sectorCount)
      .put(table.dataOffset);
  out.put(table.buffersNeeded).put(table.descriptor).zeros(6 * 4);
  putChecksum(table.checksum, out);
  out.put(static_cast<std::uint32_t>(table.runs.size() + 1));
  for (const Run& run : table.runs) putRun(run, out);
  putRun({RunType::terminator, table.sectorCount, 0, endOffset, 0}, out);
  return bytes;
}

base::Result<BlockTable> decodeTable(std::span<const std::byte> bytes) {
  base::ByteReader in(bytes);
  BlockTable table;
  const bool known = in.get<std::uint32_t>() == kTableSignature && in.get<std::uint32_t>() == 1;
  table.firstSector = in.get<std::uint64_t>();
  table.sectorCount = in.get<std::uint64_t>();
  table.dataOffset = in.get<std::uint64_t>();
  table.buffersNeeded = in.get<std::uint32_t>();
  table.descriptor = in.get<std::uint32_t>();
  in.skip(6 * 4);
  const bool summed = getChecksum(in, table.checksum);
  const auto count = in.get<std::uint32_t>();
  if (!known || !summed || !in.ok() || in.remaining() / kRunBytes < count)
    return base::Error{"a block table is damaged"};
  for (std::uint32_t i = 0; i < count; ++i) {
    const Run run = getRun(in);
    if (run.type == RunType::terminator || run.type == RunType::comment) continue;
    if (!liesWithin(run.firstSector, run.sectorCount, table.sectorCount))
      return base::Error{"a block table names sectors outside its region"};
    table.runs.push_back(run);
  }
  return table;
}

std::array<std::byte, kTrailerBytes> encodeTrailer(const Trailer& trailer) {
  std::vector<std::byte> bytes;
  base::ByteWriter out(bytes);
  out.put(kTrailerSignature).put(std::uint32_t{4}).put(std::uint32_t{kTrailerBytes}).put(std::uint32_t{1});
  out.put(std::uint64_t{0}).put(trailer.dataForkOffset).put(trailer.dataForkLength).zeros(2 * 8);
  out.put(std::uint32_t{1}).put(std::uint32_t{1}).put(trailer.segmentID);
  putChecksum(trailer.dataChecksum, out);
  out.put(trailer.propertyListOffset).put(trailer.propertyListLength).zeros(120);
  putChecksum(trailer.masterChecksum, out);
  out.put(trailer.variant).put(trailer.sectorCount).zeros(12);
  std::array<std::byte, kTrailerBytes> block{};
  std::ranges::copy(bytes, block.begin());
  return block;
}

bool isTrailer(std::span<const std::byte> bytes) {
  return base::ByteReader(bytes).get<std::uint32_t>() == kTrailerSignature;
}

base::Result<Trailer> decodeTrailer(std::span<const std::byte, kTrailerBytes> bytes) {
  base::ByteReader in(bytes);
  Trailer trailer;
  if (in.get<std::uint32_t>() != kTrailerSignature) return base::Error{"not a disk image: it has no trailer"};
  if (in.get<std::uint32_t>() != 4 || in.get<std::uint32_t>() != kTrailerBytes)
    return base::Error{"a disk image of an unknown version"};
  in.skip(4 + 8);
  trailer.dataForkOffset = in.get<std::uint64_t>();
  trailer.dataForkLength = in.get<std::uint64_t>();
  trailer.resourceForkOffset = in.get<std::uint64_t>();
  trailer.resourceForkLength = in.get<std::uint64_t>();
  in.skip(4);
  if (in.get<std::uint32_t>() > 1) return base::Error{"one segment of a disk image in several files"};
  std::ranges::copy(in.take(trailer.segmentID.size()), trailer.segmentID.begin());
  const bool dataSummed = getChecksum(in, trailer.dataChecksum);
  trailer.propertyListOffset = in.get<std::uint64_t>();
  trailer.propertyListLength = in.get<std::uint64_t>();
  in.skip(120);
  const bool tablesSummed = getChecksum(in, trailer.masterChecksum);
  trailer.variant = in.get<std::uint32_t>();
  trailer.sectorCount = in.get<std::uint64_t>();
  if (!dataSummed || !tablesSummed)
    return base::Error{"a checksum of its trailer is damaged, or of an unknown kind"};
  return trailer;
}

std::optional<std::uint32_t> masterChecksum(const std::vector<BlockTable>& tables) {
  std::vector<std::byte> sums;
  for (const BlockTable& table : tables) {
    if (!table.checksum) return std::nullopt;
    base::ByteWriter(sums).put(*table.checksum);
  }
  return codec::CRC32::of(sums).value();
}

base::PropertyList encodeResources(const std::vector<BlockTable>& tables, std::uint64_t endOffset) {
  base::PropertyList::Array blocks;
  for (const BlockTable& table : tables) {
    const auto id = std::to_string(static_cast<std::int32_t>(table.descriptor));
    auto entry = resource(id, table.name, encodeTable(table, endOffset));
    entry.emplace("CFName", table.name);
    blocks.emplace_back(std::move(entry));
  }
  base::PropertyList::Array plst{resource("0", "", std::vector<std::byte>(kPlstBytes))};
  base::PropertyList::Dictionary fork{{"blkx", std::move(blocks)}, {"plst", std::move(plst)}};
  return base::PropertyList::Dictionary{{"resource-fork", std::move(fork)}};
}

base::Result<std::vector<BlockTable>> decodeResources(const base::PropertyList& list) {
  using Dictionary = base::PropertyList::Dictionary;
  const auto* root = list.as<Dictionary>();
  const auto* fork = root ? base::find<Dictionary>(*root, "resource-fork") : nullptr;
  const auto* blocks = fork ? base::find<base::PropertyList::Array>(*fork, "blkx") : nullptr;
  if (blocks == nullptr) return base::Error{"its property list has no block tables"};
  std::vector<BlockTable> tables;
  for (const base::PropertyList& block : *blocks) {
    const auto* entry = block.as<Dictionary>();
    const auto* data = entry ? base::find<base::PropertyList::Data>(*entry, "Data") : nullptr;
    if (data == nullptr) return base::Error{"a block table is missing"};
    auto table = decodeTable(*data);
    if (!table) return table.error();
    const auto* name = base::find<std::string>(*entry, "Name");
    if (name == nullptr) name = base::find<std::string>(*entry, "CFName");
    if (name != nullptr) table->name = *name;
    tables.push_back(std::move(*table));
  }
  return tables;
}

}  // namespace image::udif
