#pragma once

#include <string>
#include <string_view>

#include "base/result.h"
#include "image/fuse/mount_table.h"
#include "image/mount.h"
#include "image/os/file_descriptor.h"

namespace image::fuse {

struct MountPoint {
  std::string path;  // absolute; an empty folder, or a mount of the very same image
  bool wasMade = false;
  bool wasMounted = false;
};

// Finds the place that a request asks for, and makes its folder. Refused: a volume's name that can be no
// folder's; a place that something else takes, be it a mount, a volume of that name elsewhere, or a folder
// with something in it.
base::Result<MountPoint> findMountPoint(const MountRequest& request, std::string_view volumeName,
                                        const ImageIdentity& image);

// Until it goes away nobody else looks for a mount point in the folder of volumes, which is made if it is
// missing.
class VolumesFolderLock {
 public:
  static base::Result<VolumesFolderLock> take(const std::string& folder);

 private:
  explicit VolumesFolderLock(os::FileDescriptor folder) : folder_(std::move(folder)) {}

  os::FileDescriptor folder_;
};

}  // namespace image::fuse
