#include "platform/posix/hidden_attribute.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/msdos_fs.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <sys/xattr.h>

#include "base/byte_order.h"
#include "platform/posix/file_descriptor.h"

namespace platform::posix {
namespace {

constexpr std::uint32_t kHidden = 0x02;  // in FAT directory entries and in NTFS standard information alike
constexpr std::uint32_t kNTFS3Magic = 0x7366746E;
constexpr std::uint32_t kExFATMagic = 0x2011BAB0;
constexpr std::uint32_t kFUSEMagic = 0x65735546;

}  // namespace

HiddenAttribute HiddenAttribute::forFolder(int folder, std::uint64_t device, const HiddenAttribute& parent) {
  if (device == parent.device_) return parent;
  HiddenAttribute reader;
  reader.device_ = device;
  reader.source_ = sourceOf(folder);
  return reader;
}

HiddenAttribute::Source HiddenAttribute::sourceOf(int folder) {
  struct statfs fileSystem {};
  if (::fstatfs(folder, &fileSystem) != 0) return Source::none;
  switch (static_cast<std::uint32_t>(fileSystem.f_type)) {
    case MSDOS_SUPER_MAGIC:
    case kExFATMagic:
      return Source::fat;
    case kNTFS3Magic:
      return Source::ntfs;
    // ntfs-3g is one of many file systems behind FUSE: the one whose folders have the attribute.
    case kFUSEMagic:
      return ::fgetxattr(folder, "system.ntfs_attrib_be", nullptr, 0) == 4 ? Source::ntfs : Source::none;
    default:
      return Source::none;
  }
}

bool HiddenAttribute::isSet(int folder, const char* name) {
  switch (source_) {
    case Source::fat:
      return isSetOnFAT(folder, name);
    case Source::ntfs:
      return isSetOnNTFS(folder, name);
    case Source::none:
      return false;
  }
  return false;
}

bool HiddenAttribute::isSetOnFAT(int folder, const char* name) {
  const FileDescriptor item(::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  std::uint32_t attributes = 0;
  if (!item) return false;
  if (::ioctl(item.get(), FAT_IOCTL_GET_ATTRIBUTES, &attributes) == 0) return (attributes & kHidden) != 0;
  if (errno == ENOTTY) source_ = Source::none;  // exFAT before Linux 6.8 does not tell
  return false;
}

bool HiddenAttribute::isSetOnNTFS(int folder, const char* name) {
  // No call reads an extended attribute below an open folder without opening the item, but for this path.
  const auto path = "/proc/self/fd/" + std::to_string(folder) + "/" + name;
  std::array<std::byte, 4> value{};
  if (::lgetxattr(path.c_str(), "system.ntfs_attrib_be", value.data(), value.size()) == 4) {
    return (base::loadBigEndian<std::uint32_t>(value.data()) & kHidden) != 0;
  }
  // ntfs3 before Linux 6.2 has it in the machine's byte order only.
  std::uint32_t attributes = 0;
  return ::lgetxattr(path.c_str(), "system.ntfs_attrib", &attributes, sizeof attributes) == 4 &&
         (attributes & kHidden) != 0;
}

}  // namespace platform::posix
