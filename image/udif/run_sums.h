#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/random_access.h"
#include "base/result.h"
#include "image/codec/checksum.h"
#include "image/udif/chunk_decoder.h"
#include "image/udif/format.h"

namespace image::udif {

// One run's part in the sums of its region and of the data fork.
struct RunSum {
  codec::CRC32 plain{};
  codec::CRC32 stored{};
  friend bool operator==(const RunSum&, const RunSum&) = default;
};

// Reads runs and sums them. One thread at a time; keeps its memory between calls.
class RunSummer {
 public:
  // The file outlives the summer.
  explicit RunSummer(const base::RandomAccess& file) : file_(file) {}

  // fileOffset: where the run's stored bytes stand. region: for messages.
  base::Result<RunSum> sum(const Run& run, std::uint64_t fileOffset, std::string_view region);

 private:
  base::Result<RunSum> sumRaw(const Run& run, std::uint64_t fileOffset, std::string_view region);

  const base::RandomAccess& file_;
  ChunkDecoder decoder_;
  std::vector<std::byte> stored_;
  std::vector<std::byte> plain_;
};

base::Error damagedRun(const Run& run, std::string_view region);

// The sums of runs that were read before, by where the runs stand.
class RunSums {
 public:
  void add(const Run& run, std::uint64_t fileOffset, const RunSum& sum) { known_[fileOffset] = {run, sum}; }
  void clear() { known_.clear(); }
  // Null where no such run was read there.
  const RunSum* find(const Run& run, std::uint64_t fileOffset) const;

 private:
  struct Known {
    Run run;
    RunSum sum;
  };
  std::unordered_map<std::uint64_t, Known> known_;
};

}  // namespace image::udif
