#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "image/udif/format.h"

namespace image {

struct HandMadeChunk {
  udif::RunType type = udif::RunType::raw;
  // In its table.
  std::uint64_t firstSector = 0;
  // A whole number of sectors.
  std::vector<std::byte> plain{};
};

struct HandMadeTable {
  std::string name{};
  std::uint64_t firstSector = 0;
  std::uint64_t sectorCount = 0;
  std::vector<HandMadeChunk> chunks{};
  std::uint64_t dataOffset = 0;
};

struct HandMadeLayout {
  std::uint64_t dataForkOffset = 0;
  // Stores the last chunk first.
  bool backwards = false;
  // Bytes of no meaning before each chunk.
  std::size_t gap = 0;
  bool summed = false;
};

// A UDIF image as another maker might put it together.
std::vector<std::byte> handMadeImage(const std::vector<HandMadeTable>& tables,
                                     const HandMadeLayout& layout = {});

// As a chunk of that type stores it.
std::vector<std::byte> storedAs(udif::RunType type, const std::vector<std::byte>& plain);

// Sectors of text that differs from seed to seed and can be compressed.
std::vector<std::byte> textSectors(std::size_t count, unsigned seed);

}  // namespace image
