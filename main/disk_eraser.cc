#include "main/disk_eraser.h"

#include <string_view>
#include <unistd.h>

#include "image/blank_disk.h"
#include "image/os/block_device.h"
#include "main/udisks.h"

namespace {

namespace os = image::os;

// From here on the service's own formatting makes FAT32, for which it asks no password.
constexpr std::uint64_t kAlwaysFAT32 = 1ull << 30;

// Where desktops mount removable volumes. What is mounted elsewhere has a place in the system.
bool isPlaceForRemovables(std::string_view folder) {
  return folder.starts_with("/media/") || folder.starts_with("/run/media/");
}

base::Result<void> unmountAll(const os::Disk& disk) {
  const auto places = os::mountPlaces(disk);
  if (!places) return places.error();
  for (const os::MountPlace& place : *places)
    if (!isPlaceForRemovables(place.folder))
      return base::Error{place.device + " is mounted at " + place.folder + ", where removable disks are not"};
  for (const os::MountPlace& place : *places) {
    if (::geteuid() == 0) {
      if (auto done = os::unmount(place); !done) return done;
      continue;
    }
    auto service = UDisks::connect();
    if (!service) return service.error();
    if (auto done = service->unmount(place.device); !done) return done;
  }
  return {};
}

base::Result<void> overwrite(const os::FileDescriptor& file, const os::Disk& disk,
                             const os::FileDescriptor& contents) {
  if (auto same = os::requireSame(file, disk); !same) return same;
  return os::overwrite(file, contents);
}

base::Result<void> eraseByService(const tools::Erasure& erasure, const os::Disk& disk,
                                  const os::FileDescriptor& contents) {
  auto service = UDisks::connect();
  if (!service) return service.error();
  if (erasure.fileSystem == image::FileSystem::FAT32 && disk.bytes >= kAlwaysFAT32) {
    const auto now = os::findDisk(disk.device);
    if (!now || now->sequence != disk.sequence) return base::Error{disk.device + " is another disk by now"};
    const auto version = service->formatFAT(disk.device, erasure.name);
    if (!version) return version.error();
    if (*version != "FAT32") return base::Error{"the disk service made " + *version + " of " + disk.device};
    return {};
  }
  {
    const auto file = service->open(disk.device);
    if (!file) return file.error();
    if (auto done = overwrite(*file, disk, contents); !done) return done;
  }
  return service->rescan(disk.device);
}

}  // namespace

base::Result<void> eraseDisk(const tools::Erasure& erasure) {
  const auto disk = os::findDisk(erasure.disk);
  if (!disk) return disk.error();
  if (auto erasable = os::requireErasable(*disk); !erasable) return erasable;
  const auto contents = image::layBlankDisk({.fileSystem = erasure.fileSystem,
                                             .name = erasure.name,
                                             .bytes = disk->bytes,
                                             .owner = ::getuid(),
                                             .group = ::getgid()});
  if (!contents) return contents.error();
  if (auto unmounted = unmountAll(*disk); !unmounted) return unmounted;
  const auto opened = os::openAlone(*disk);
  if (!opened) return opened.error();
  if (opened->forbidden) return eraseByService(erasure, *disk, *contents);
  if (auto done = overwrite(opened->file, *disk, *contents); !done) return done;
  return os::readPartitionsAgain(opened->file);
}
