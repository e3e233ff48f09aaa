#include "platform/embedded/volume_folder.h"

#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include "platform/posix/media_identity.h"

namespace platform::embedded {
namespace {

// Under which the names of folders are made into UUIDs.
constexpr posix::UUIDBytes kFolderNamespace = {0x8d, 0x1e, 0x54, 0x0b, 0x27, 0xc6, 0x4f, 0x93,
                                               0xa5, 0x70, 0x3e, 0xd9, 0x62, 0x18, 0xbb, 0x4c};

struct FolderStatus {
  struct statx item = {};
  struct statvfs fileSystem = {};
};

std::optional<struct statx> statusOf(const std::string& path) {
  struct statx item = {};
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
  if (statx(AT_FDCWD, path.c_str(), flags, STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID, &item) != 0 ||
      !S_ISDIR(item.stx_mode)) {
    return std::nullopt;
  }
  return item;
}

dev_t deviceOf(const struct statx& item) { return makedev(item.stx_dev_major, item.stx_dev_minor); }

bool isMountPoint(const struct statx& item) { return (item.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0; }

// What the table of mounts says of one: "36 35 98:0 /root /place options - ext4 ...".
struct Mount {
  std::string root;  // the folder of the file system that is mounted
  std::string fileSystem;
};

Mount mountOf(std::uint64_t mountID) {
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::uint64_t id = 0;
    std::string skipped;
    Mount mount;
    if (!(fields >> id >> skipped >> skipped >> mount.root) || id != mountID) continue;
    while (fields >> skipped && skipped != "-") {
    }
    fields >> mount.fileSystem;
    return mount;
  }
  return {};
}

// A whole file system's is its medium's.
std::string uuidOf(const FolderStatus& folder, const Mount& mount) {
  if (isMountPoint(folder.item) && mount.root == "/") {
    if (auto uuid = posix::mediaUUID(posix::mediaIdentityOf(deviceOf(folder.item)))) return *std::move(uuid);
  }
  return posix::nameUUID(kFolderNamespace, std::to_string(folder.fileSystem.f_fsid) + " " +
                                               std::to_string(folder.item.stx_ino) + " " +
                                               std::to_string(folder.item.stx_btime.tv_sec) + " " +
                                               std::to_string(folder.item.stx_btime.tv_nsec));
}

std::int64_t contentsOf(const std::string& path, ports::Files& files, const std::function<bool()>& stop) {
  std::uint64_t bytes = 0;
  files.enumerate(path, {.totalFileSize = true}, [&](const ports::FileItem& item) {
    bytes += item.totalFileSize;
    return !stop();
  });
  return static_cast<std::int64_t>(bytes);
}

}  // namespace

std::optional<FolderIdentity> identifyFolder(const std::string& path) {
  const auto item = statusOf(path);
  if (!item) return std::nullopt;
  return FolderIdentity{deviceOf(*item), item->stx_ino, isMountPoint(*item)};
}

std::optional<ports::DiskDescription> describeFolder(const std::string& path, ports::Files& files,
                                                     const std::function<bool()>& stop) {
  FolderStatus folder;
  const auto item = statusOf(path);
  if (!item || statvfs(path.c_str(), &folder.fileSystem) != 0) return std::nullopt;
  folder.item = *item;
  const Mount mount = mountOf(item->stx_mnt_id);
  const std::int64_t size =
      isMountPoint(*item) ? static_cast<std::int64_t>(folder.fileSystem.f_blocks * folder.fileSystem.f_frsize)
                          : contentsOf(path, files, stop);
  return ports::DiskDescription{
      {std::string(ports::kDADiskDescriptionVolumeKindKey), mount.fileSystem},
      {std::string(ports::kDADiskDescriptionVolumeMountableKey), true},
      {std::string(ports::kDADiskDescriptionMediaEjectableKey), true},
      {std::string(ports::kDADiskDescriptionMediaIconKey), "drive-removable-media-usb"},
      {std::string(ports::kDADiskDescriptionMediaSizeKey), size},
      {std::string(ports::kDADiskDescriptionMediaUUIDKey), uuidOf(folder, mount)},
      {std::string(ports::kDADiskDescriptionMediaWholeKey), false},
      {std::string(ports::kDADiskDescriptionMediaWritableKey), (folder.fileSystem.f_flag & ST_RDONLY) == 0},
      {std::string(ports::kDADiskDescriptionDeviceInternalKey), false},
      {std::string(ports::kDADiskDescriptionDeviceProtocolKey), "USB"},
  };
}

}  // namespace platform::embedded
