#include "platform/posix/folder_disks.h"

#include <algorithm>
#include <fcntl.h>
#include <string_view>
#include <utility>

namespace platform::posix {

void FolderDisk::setFolder(const std::string& folder) {
  const base::MutexLock lock(mutex_);
  if (folder == folder_) return;
  folder_ = folder;
  held_.reset();
  if (claimed_) hold();
}

std::string FolderDisk::folder() const {
  const base::MutexLock lock(mutex_);
  return folder_;
}

void FolderDisk::claim() {
  const base::MutexLock lock(mutex_);
  if (!std::exchange(claimed_, true)) hold();
}

void FolderDisk::unclaim() {
  const base::MutexLock lock(mutex_);
  claimed_ = false;
  held_.reset();
}

bool FolderDisk::isClaimed() const {
  const base::MutexLock lock(mutex_);
  return claimed_;
}

// An open path is enough to keep the file system busy, and needs no permission to read it.
void FolderDisk::hold() {
  if (!folder_.empty()) held_ = FileDescriptor(::open(folder_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

std::unique_ptr<ports::DiskSession> FolderDisks::createSession(ports::DiskSessionCallbacks callbacks) {
  return sessions_.create(std::move(callbacks));
}

ports::DiskDescription FolderDisks::copyDescription(const ports::DiskRef& disk) {
  return disk ? static_cast<const FolderDisk&>(*disk).description : ports::DiskDescription{};
}

void FolderDisks::claim(const ports::DiskRef& disk) {
  if (disk) static_cast<FolderDisk&>(*disk).claim();
}

void FolderDisks::unclaim(const ports::DiskRef& disk) {
  if (disk) static_cast<FolderDisk&>(*disk).unclaim();
}

ports::DiskRef FolderDisks::diskFromVolumePath(const base::FileURL& volume) {
  constexpr std::string_view kVolumes = "/Volumes/";
  if (!volume.path.starts_with(kVolumes)) return nullptr;
  const auto disks = disksPresent_();
  const auto found = std::ranges::find_if(disks, [&](const ports::DiskRef& disk) {
    const auto& candidate = static_cast<const FolderDisk&>(*disk);
    const auto* name = base::find<std::string>(candidate.description, ports::kDADiskDescriptionVolumeNameKey);
    return name && *name == volume.path.substr(kVolumes.size()) && !candidate.folder().empty();
  });
  return found == disks.end() ? nullptr : *found;
}

}  // namespace platform::posix
