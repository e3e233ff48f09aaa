#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "image/block/content.h"
#include "image/block/output.h"
#include "image/block/partitioned_disk.h"
#include "image/codec/decompressor.h"
#include "image/codec/zlib_codec.h"
#include "image/udif/progress.h"
#include "image/udif/run_sums.h"

namespace image::udif {

struct WriteOptions {
  // Zlib or bzip2. nullopt: every chunk that is not all zeros is stored as it is.
  std::optional<codec::Compression> compression = codec::Compression::zlib;
  // Of zlib.
  int level = codec::ZlibCompressor::kFastest;
  // At least 1.
  unsigned workers = 1;
  std::array<std::byte, 16> segmentID{};
  // Looked at between chunks; null: never cancelled.
  const std::atomic<bool>* cancelled = nullptr;
  Progress* progress = nullptr;
  // Where set, and where the output can do it, what is written is read back from disk at once and compared;
  // receives the sums of what was found there.
  RunSums* readBack = nullptr;
  // What messages about what was read back call the image.
  std::string name{};
};

// Writes the disk as a UDIF image. Reads, compresses and sums in `workers` threads and writes the chunks in
// the order of the disk. Every write begins at a multiple of 4096 bytes, and all but the last have such a
// length. Gives the image's length in bytes; the first thing that goes wrong ends it with that Error.
base::Result<std::uint64_t> writeImage(const block::Content& disk, const std::vector<block::Region>& regions,
                                       block::Output& output, const WriteOptions& options);

struct LengthEstimate {
  std::uint64_t likely = 0;
  // What it will hardly be below: one time in a thousand.
  std::uint64_t least = 0;
};

// How many bytes writeImage() will store of the disk, from up to 64 chunks that are spread over it; exactly,
// where it has no more. Leaves out the property list and the trailer.
base::Result<LengthEstimate> estimateLength(const block::Content& disk,
                                            const std::vector<block::Region>& regions,
                                            const WriteOptions& options);

}  // namespace image::udif
