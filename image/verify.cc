#include "image/verify.h"

#include <algorithm>
#include <string>

#include "image/os/host.h"
#include "image/udif/reader.h"

namespace image {
namespace {

base::Result<hfs::VolumeCounts> checkVolumes(const udif::Image& image) {
  hfs::VolumeCounts counts;
  for (const udif::BlockTable& table : image.tables()) {
    if (table.name.find("Apple_HFS") == std::string::npos) continue;
    const auto found = hfs::checkVolume(udif::RegionView(image, table));
    if (!found) return found.error();
    counts.files += found->files;
    counts.folders += found->folders;
  }
  return counts;
}

base::Result<void> checkSectorCount(const udif::Image& image) {
  std::uint64_t end = 0;
  for (const udif::BlockTable& table : image.tables())
    end = std::max(end, table.firstSector + table.sectorCount);
  if (end == image.trailer().sectorCount) return {};
  return base::Error{"its trailer counts other sectors than its tables have"};
}

}  // namespace

base::Result<hfs::VolumeCounts> checkImage(const OpenedImage& image, unsigned workers,
                                           const std::atomic<bool>* cancelled, const udif::RunSums* known) {
  if (workers == 0) workers = os::processors();
  if (auto counted = checkSectorCount(image.udif()); !counted) return counted.error();
  if (auto sums =
          udif::verifyChecksums(image.udif(), {.workers = workers, .cancelled = cancelled, .known = known});
      !sums)
    return sums.error();
  return checkVolumes(image.udif());
}

}  // namespace image
