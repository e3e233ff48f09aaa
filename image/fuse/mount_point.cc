#include "image/fuse/mount_point.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "image/fuse/unmount.h"
#include "image/os/posix_error.h"

namespace fs = std::filesystem;

namespace image::fuse {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 10s;
constexpr auto kPause = 20ms;
constexpr int kMostNames = 100;

bool isFolderName(std::string_view name) {
  const auto isForbidden = [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F || byte == '/';
  };
  return !name.empty() && name != "." && name != ".." && std::ranges::none_of(name, isForbidden);
}

// Somebody's volume of that name: whoever reads the volume by its name would get that one's files.
std::optional<std::string> volumeElsewhere(std::string_view name, const std::string& place) {
  for (const auto& mount : mountTable())
    if (!mount.server && mount.mountPoint != place && fs::path(mount.mountPoint).filename() == name)
      return mount.mountPoint;
  return std::nullopt;
}

base::Result<MountPoint> useFolder(const std::string& place) {
  if (::mkdir(place.c_str(), 0700) == 0) return MountPoint{.path = place, .wasMade = true};
  if (errno != EEXIST) return os::posixError("cannot make the mount point", place, errno);
  std::error_code none;
  if (fs::is_directory(fs::symlink_status(place, none)) && fs::is_empty(place, none) && !none)
    return MountPoint{.path = place};
  return base::Error{place + " is taken by something that is no empty folder"};
}

base::Result<MountPoint> usePlace(const std::string& place, const ImageIdentity& image) {
  const auto mount = mountAt(place);
  if (!mount) return useFolder(place);
  if (!mount->server) return base::Error{place + " is taken by another mount"};
  if (!mount->server->isAlive()) {
    if (const auto detached = detach(place, Detach::atOnce); !detached) return detached.error();
    return useFolder(place);
  }
  if (mount->server->image == image) return MountPoint{.path = place, .wasMounted = true};
  return base::Error{place + " is taken by another image"};
}

base::Result<MountPoint> findFreeName(const std::string& folder, std::string_view name,
                                      const ImageIdentity& image) {
  const std::string first = folder + "/" + std::string(name);
  auto found = usePlace(first, image);
  for (int number = 1; !found && number < kMostNames; ++number) {
    const std::string place = first + " " + std::to_string(number);
    found = usePlace(place, image);
  }
  return found;
}

}  // namespace

base::Result<MountPoint> findMountPoint(const MountRequest& request, std::string_view volumeName,
                                        const ImageIdentity& image) {
  if (request.mountPoint) return usePlace(absolutePlace(*request.mountPoint), image);
  if (!isFolderName(volumeName)) return base::Error{"the volume's name can be no folder's"};
  std::error_code none;
  const std::string folder = fs::canonical(request.volumesFolder, none);
  if (none) return os::posixError("cannot find", request.volumesFolder, none.value());
  if (request.takenName == MountRequest::TakenName::findFreeOne)
    return findFreeName(folder, volumeName, image);
  const std::string place = folder + "/" + std::string(volumeName);
  if (const auto other = volumeElsewhere(volumeName, place))
    return base::Error{"another volume of the name \"" + std::string(volumeName) + "\" is mounted at " +
                       *other};
  return usePlace(place, image);
}

base::Result<VolumesFolderLock> VolumesFolderLock::take(const std::string& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) return os::posixError("cannot make", folder, error.value());
  os::FileDescriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened) return os::posixError("cannot open", folder, errno);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (::flock(opened.number(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return os::posixError("cannot lock", folder, errno);
    if (std::chrono::steady_clock::now() >= deadline)
      return base::Error{folder + " is in use by another mount"};
    std::this_thread::sleep_for(kPause);
  }
  return VolumesFolderLock(std::move(opened));
}

}  // namespace image::fuse
