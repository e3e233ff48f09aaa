#pragma once

#include <chrono>
#include <string>

#include "base/result.h"
#include "image/fuse/mount_table.h"
#include "image/mount.h"

namespace image::fuse {

// Takes an image's mount away: when this returns without an Error its server has ended and a mount point in
// the folder of volumes is gone. What is in use is waited for a short while, then refused as busy, or with
// `force` taken away all the same. Gives the mount point.
base::Result<std::string> unmount(const UnmountRequest& request);

// Takes away what a server that died has left in the folder of volumes. What cannot be taken away stays.
void removeDeadMounts(const std::string& volumesFolder);

// Takes a mount away at once. As a user by way of fusermount3.
enum class Detach { whenUnused, atOnce };
base::Result<void> detach(const std::string& mountPoint, Detach how);

// Whether the process was gone by then.
bool waitForEnd(pid_t process, std::chrono::milliseconds patience);

}  // namespace image::fuse
