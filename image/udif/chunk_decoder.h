#pragma once

#include <array>
#include <memory>
#include <span>
#include <string_view>

#include "base/result.h"
#include "image/codec/decompressor.h"
#include "image/udif/format.h"

namespace image::udif {

// No reader can be asked to hold a larger compressed run.
constexpr std::uint64_t kMostRunSectors = 1 << 19;

// Whether a run has bytes in the data fork.
constexpr bool isStored(RunType type) {
  return type != RunType::zeros && type != RunType::ignored && type != RunType::comment &&
         type != RunType::terminator;
}

// Refuses a compressed run of a type that is not supported, and one that nobody should read into memory.
// region: the name of its table, for the message.
base::Result<void> checkCompressed(const Run& run, std::string_view region);

// Makes the sectors of compressed chunks of every type. One thread at a time; keeps its memory between calls.
class ChunkDecoder {
 public:
  // stored: the bytes of a run that checkCompressed() takes. plain: room for its sectors.
  base::Result<void> decode(const Run& run, std::string_view region, std::span<const std::byte> stored,
                            std::span<std::byte> plain);

 private:
  // By codec::Compression; made as they are needed.
  std::array<std::unique_ptr<codec::Decompressor>, 4> decompressors_;
};

}  // namespace image::udif
