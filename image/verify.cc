#include "image/verify.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "image/os/host.h"
#include "image/udif/reader.h"

namespace image {
namespace {

base::Result<hfs::VolumeCounts> checkVolumes(const OpenedImage& image) {
  hfs::VolumeCounts counts;
  for (const block::Partition& partition : image.partitions()) {
    if (!partition.hfsPlus) continue;
    const auto found = hfs::checkVolume(block::DiskPart(image.disk(), *partition.hfsPlus));
    if (!found) return found.error();
    counts.files += found->files;
    counts.folders += found->folders;
  }
  return counts;
}

// Sectors of the disk, or of a table's region.
struct Sectors {
  std::uint64_t first;
  std::uint64_t count;
};

enum class Gaps { nowhere, between, anywhere };

// Whether the parts lie beside each other within `whole` sectors, with no gap where there may be none.
bool fill(std::vector<Sectors> parts, std::uint64_t whole, Gaps gaps) {
  std::ranges::sort(parts, {}, &Sectors::first);
  std::uint64_t end = 0;
  for (const auto& [first, count] : parts) {
    if (first < end || (first != end && gaps == Gaps::nowhere) || count > whole || first > whole - count)
      return false;
    end = first + count;
  }
  return end == whole || gaps == Gaps::anywhere;
}

// What makers leave out who write no checksums reads as zeros.
base::Result<void> checkSectors(const udif::Image& image) {
  const bool hasSums = image.trailer().masterChecksum.has_value();
  std::vector<Sectors> regions;
  for (const udif::BlockTable& table : image.tables()) {
    regions.push_back({table.firstSector, table.sectorCount});
    std::vector<Sectors> runs;
    for (const udif::Run& run : table.runs) runs.push_back({run.firstSector, run.sectorCount});
    if (!fill(std::move(runs), table.sectorCount, hasSums ? Gaps::nowhere : Gaps::anywhere))
      return base::Error{"the chunks of " + table.name + " are not its sectors"};
  }
  const std::uint64_t whole = hasSums ? image.trailer().sectorCount : image.diskSectors();
  if (fill(std::move(regions), whole, hasSums ? Gaps::between : Gaps::anywhere)) return {};
  return base::Error{"its tables overlap, or its trailer counts other sectors than they have"};
}

}  // namespace

base::Result<hfs::VolumeCounts> checkImage(const OpenedImage& image, unsigned workers,
                                           const std::atomic<bool>* cancelled, const udif::RunSums* known,
                                           udif::Progress* progress) {
  const udif::Image* const udif = image.udif();
  if (udif == nullptr && !image.hfsPlusVolume())
    return base::Error{"it has neither checksums nor an HFS+ volume that could be checked"};
  if (udif == nullptr) return checkVolumes(image);
  if (workers == 0) workers = os::processors();
  if (auto placed = checkSectors(*udif); !placed) return placed.error();
  if (auto sums = udif::verifyChecksums(
          *udif, {.workers = workers, .cancelled = cancelled, .known = known, .progress = progress});
      !sums)
    return sums.error();
  return checkVolumes(image);
}

}  // namespace image
