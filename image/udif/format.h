#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/property_list.h"
#include "base/result.h"

namespace image::udif {

enum class RunType : std::uint32_t {
  zeros = 0,
  raw = 1,
  ignored = 2,
  adc = 0x80000004,
  zlib = 0x80000005,
  bzip2 = 0x80000006,
  lzfse = 0x80000007,
  lzma = 0x80000008,
  comment = 0x7FFFFFFE,
  terminator = 0xFFFFFFFF,
};

// Where some sectors of a table's region stand in the data fork, and how.
struct Run {
  RunType type = RunType::zeros;
  // From the first sector of the region on.
  std::uint64_t firstSector = 0;
  std::uint64_t sectorCount = 0;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
};

// One `mish` table: a region of the disk.
struct BlockTable {
  // As it stands in the property list; not part of the table's bytes.
  std::string name{};
  std::uint32_t descriptor = 0;
  std::uint64_t firstSector = 0;
  std::uint64_t sectorCount = 0;
  std::uint64_t dataOffset = 0;
  // What a reader must hold of the largest run, in sectors.
  std::uint32_t buffersNeeded = 0;
  // CRC32 of the region's bytes; nullopt when the table has none.
  std::optional<std::uint32_t> checksum{};
  std::vector<Run> runs{};
};

// With the terminator run at the end; its offset is `endOffset`.
std::vector<std::byte> encodeTable(const BlockTable& table, std::uint64_t endOffset);
// Without the terminator and comments. The name is left empty.
base::Result<BlockTable> decodeTable(std::span<const std::byte> bytes);

constexpr std::size_t kTrailerBytes = 512;

// The `koly` trailer, the last 512 bytes of an image, or the first ones.
struct Trailer {
  std::uint64_t dataForkOffset = 0;
  std::uint64_t dataForkLength = 0;
  // Where old images have their tables; written as 0.
  std::uint64_t resourceForkOffset = 0;
  std::uint64_t resourceForkLength = 0;
  std::uint64_t propertyListOffset = 0;
  std::uint64_t propertyListLength = 0;
  std::array<std::byte, 16> segmentID{};
  std::optional<std::uint32_t> dataChecksum;
  std::optional<std::uint32_t> masterChecksum;
  // 1: a disk with a partition map; 2: a bare volume.
  std::uint32_t variant = 1;
  std::uint64_t sectorCount = 0;
};

bool isTrailer(std::span<const std::byte> bytes);
std::array<std::byte, kTrailerBytes> encodeTrailer(const Trailer& trailer);
base::Result<Trailer> decodeTrailer(std::span<const std::byte, kTrailerBytes> bytes);

// CRC32 over the tables' own checksums, in order. nullopt when a table has none.
std::optional<std::uint32_t> masterChecksum(const std::vector<BlockTable>& tables);

// The `resource-fork` property list with its `blkx` and `plst` entries.
base::PropertyList encodeResources(const std::vector<BlockTable>& tables, std::uint64_t endOffset);
base::Result<std::vector<BlockTable>> decodeResources(const base::PropertyList& list);

}  // namespace image::udif
