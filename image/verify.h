#pragma once

#include <atomic>

#include "base/result.h"
#include "image/hfs/volume_check.h"
#include "image/open.h"

namespace image {

// Checks every checksum of an image (a disk without a trailer has none) and the structure of each HFS+ volume
// in it; gives their files and folders. workers: 0 for one for each processor. cancelled, known and
// progress (see udif::VerifyOptions) may be null; progress is that of the checksums.
base::Result<hfs::VolumeCounts> checkImage(const OpenedImage& image, unsigned workers,
                                           const std::atomic<bool>* cancelled,
                                           const udif::RunSums* known = nullptr,
                                           udif::Progress* progress = nullptr);

}  // namespace image
