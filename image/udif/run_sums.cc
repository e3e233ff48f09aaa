#include "image/udif/run_sums.h"

#include <algorithm>
#include <string>

namespace image::udif {
namespace {

constexpr std::size_t kPieceBytes = 1 << 20;

base::Error unreadable(std::string_view region) {
  return {"a chunk of " + std::string(region) + " cannot be read"};
}

}  // namespace

base::Error damagedRun(const Run& run, std::string_view region) {
  return {"a chunk of " + std::string(region) + " is damaged (sector " + std::to_string(run.firstSector) +
          ")"};
}

base::Result<RunSum> RunSummer::sum(const Run& run, std::uint64_t fileOffset, std::string_view region) {
  const std::uint64_t bytes = run.sectorCount * 512;
  if (run.type == RunType::ignored) return RunSum{};
  if (run.type == RunType::zeros) return RunSum{codec::CRC32::ofZeros(bytes), {}};
  if (run.type == RunType::raw) return sumRaw(run, fileOffset, region);
  if (auto checked = checkCompressed(run, region); !checked) return checked.error();
  stored_.resize(run.length);
  plain_.resize(bytes);
  if (!file_.read(fileOffset, stored_)) return unreadable(region);
  if (auto decoded = decoder_.decode(run, region, stored_, plain_); !decoded) return decoded.error();
  return RunSum{codec::CRC32::of(plain_), codec::CRC32::of(stored_)};
}

base::Result<RunSum> RunSummer::sumRaw(const Run& run, std::uint64_t fileOffset, std::string_view region) {
  if (run.length != run.sectorCount * 512) return damagedRun(run, region);
  codec::CRC32 sum;
  for (std::uint64_t at = 0; at < run.length; at += kPieceBytes) {
    stored_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kPieceBytes, run.length - at)));
    if (!file_.read(fileOffset + at, stored_)) return unreadable(region);
    sum.append(codec::CRC32::of(stored_));
  }
  return RunSum{sum, sum};
}

const RunSum* RunSums::find(const Run& run, std::uint64_t fileOffset) const {
  const auto at = known_.find(fileOffset);
  if (at == known_.end()) return nullptr;
  const Run& known = at->second.run;
  const bool same =
      known.type == run.type && known.length == run.length && known.sectorCount == run.sectorCount;
  return same ? &at->second.sum : nullptr;
}

}  // namespace image::udif
