#include "platform/embedded/volume_folder.h"

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <system_error>
#include <uuid/uuid.h>

namespace platform::embedded {
namespace {

// Under which the names of folders are made into UUIDs.
constexpr uuid_t kFolderNamespace = {0x8d, 0x1e, 0x54, 0x0b, 0x27, 0xc6, 0x4f, 0x93,
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

// The field after the lone "-" of the mount's line.
std::string fileSystemName(std::uint64_t mountID) {
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::uint64_t id = 0;
    if (!(fields >> id) || id != mountID) continue;
    for (std::string field; fields >> field && field != "-";) {
    }
    std::string name;
    fields >> name;
    return name;
  }
  return {};
}

// A block device's file system says its own UUID or serial number where the system has looked for it. (What
// statvfs says of a FAT file system is only the number of the device.)
std::string serialOf(dev_t device) {
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/disk/by-uuid", none)) {
    struct stat node = {};
    if (stat(entry.path().c_str(), &node) == 0 && S_ISBLK(node.st_mode) && node.st_rdev == device) {
      return entry.path().filename();
    }
  }
  return {};
}

std::string folderUUID(const FolderStatus& folder) {
  std::string fileSystem = isMountPoint(folder.item) ? serialOf(deviceOf(folder.item)) : std::string();
  if (fileSystem.empty()) fileSystem = std::to_string(folder.fileSystem.f_fsid);
  const std::string name = fileSystem + " " + std::to_string(folder.item.stx_ino) + " " +
                           std::to_string(folder.item.stx_btime.tv_sec) + " " +
                           std::to_string(folder.item.stx_btime.tv_nsec);
  uuid_t uuid;
  uuid_generate_sha1(uuid, kFolderNamespace, name.data(), name.size());
  std::array<char, UUID_STR_LEN> text{};
  uuid_unparse_upper(uuid, text.data());
  return text.data();
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
  const std::int64_t size =
      isMountPoint(*item) ? static_cast<std::int64_t>(folder.fileSystem.f_blocks * folder.fileSystem.f_frsize)
                          : contentsOf(path, files, stop);
  return ports::DiskDescription{
      {std::string(ports::kDADiskDescriptionVolumeKindKey), fileSystemName(item->stx_mnt_id)},
      {std::string(ports::kDADiskDescriptionVolumeMountableKey), true},
      {std::string(ports::kDADiskDescriptionMediaEjectableKey), true},
      {std::string(ports::kDADiskDescriptionMediaIconKey), "drive-removable-media-usb"},
      {std::string(ports::kDADiskDescriptionMediaSizeKey), size},
      {std::string(ports::kDADiskDescriptionMediaUUIDKey), folderUUID(folder)},
      {std::string(ports::kDADiskDescriptionMediaWholeKey), false},
      {std::string(ports::kDADiskDescriptionMediaWritableKey), (folder.fileSystem.f_flag & ST_RDONLY) == 0},
      {std::string(ports::kDADiskDescriptionDeviceInternalKey), false},
      {std::string(ports::kDADiskDescriptionDeviceProtocolKey), "USB"},
  };
}

}  // namespace platform::embedded
