#include "image/verify.h"

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

}  // namespace

base::Result<hfs::VolumeCounts> checkImage(const OpenedImage& image, unsigned workers,
                                           const std::atomic<bool>* cancelled) {
  if (workers == 0) workers = os::processors();
  if (auto sums = udif::verifyChecksums(image.udif(), {.workers = workers, .cancelled = cancelled}); !sums)
    return sums.error();
  return checkVolumes(image.udif());
}

}  // namespace image
