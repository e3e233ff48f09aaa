#pragma once

#include <string>
#include <vector>

#include "platform/linux/udisks_objects.h"
#include "ports/disk_arbitration.h"

namespace platform::freedesktop {

// A disk that can be made out among UDisks2's objects: a whole one, or a volume, which is a block device with
// a file system: a partition, an unpartitioned whole disk, or what an unlocked LUKS device holds.
struct UDisksDisk {
  std::string block;    // object path
  std::string drive;    // object path; empty: it has none
  std::string bsdName;  // unique: "disk12", "disk12s1"
  bool whole = false;
  std::string wantedName{};      // of a volume; always a name that can be a path component
  std::string mountPoint{};      // empty: not mounted
  bool shouldBeMounted = false;  // a stick that its user expects to be mounted when it is plugged in
  // Without the volume's name; the appearance time is left out where there is no drive to tell it.
  ports::DiskDescription description{};
};

// The disks of these objects, in order of their paths. Left out: what UDisks2 says to ignore, empty drives,
// and objects whose drive, partition table or backing device is not known yet.
// The volume of an unpartitioned whole disk looks like its first slice. sysfs is "/sys".
std::vector<UDisksDisk> disksOf(const UDisksObjects& objects, const std::string& sysfs);

}  // namespace platform::freedesktop
