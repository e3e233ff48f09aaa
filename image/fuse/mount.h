#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "base/result.h"
#include "image/mount.h"
#include "image/volume.h"

namespace image::fuse {

using OpenVolume = std::function<base::Result<std::unique_ptr<Volume>>()>;

// Shows an image's volume as a folder, served by a process that this one leaves behind: its own session, all
// three streams on /dev/null, ended by unmounting or SIGTERM. Returns once the folder can be read. `open` is
// called in that process, so that the volume may have threads; this one must have none. `cancelled` is looked
// at while it waits.
base::Result<Mounted> mountVolume(const MountRequest& request, const OpenVolume& open,
                                  const std::atomic<bool>* cancelled = nullptr);

}  // namespace image::fuse
