#include "main/attached_folders.h"

#include <algorithm>
#include <filesystem>
#include <pwd.h>
#include <unistd.h>

#include "platform/embedded/volume_folder.h"

namespace fs = std::filesystem;

namespace {

std::string loginName() {
  const passwd* entry = ::getpwuid(::getuid());
  return entry ? entry->pw_name : "";
}

std::vector<std::string> foldersIn(const std::string& folder) {
  std::vector<std::string> folders;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (platform::embedded::identifyFolder(entry->path())) folders.push_back(entry->path());
  }
  std::ranges::sort(folders);
  return folders;
}

bool isWithin(const fs::path& path, const fs::path& folder) {
  return std::mismatch(path.begin(), path.end(), folder.begin(), folder.end()).second == folder.end();
}

}  // namespace

base::Result<void> AttachedFolders::lookIn(const std::string& folder) {
  volumesFolder_ = folder;
  return disks_.watchVolumesFolder(folder);
}

std::vector<std::string> AttachedFolders::foldersToAttach() const {
  if (volumesFolder_) return foldersIn(*volumesFolder_);
  std::vector<std::string> folders;
  for (const char* parent : {"/media/", "/run/media/"}) {
    for (const auto& folder : foldersIn(parent + loginName())) {
      const auto identity = platform::embedded::identifyFolder(folder);
      if (identity && identity->isMountPoint) folders.push_back(folder);
    }
  }
  return folders;
}

ZQRemovableDeviceCenter& AttachedFolders::center() {
  if (!center_) center_ = std::make_unique<ZQRemovableDeviceCenter>(host_);
  return *center_;
}

std::vector<cli::Device> AttachedFolders::present() {
  auto devices = center().availableDevices();
  for (const auto& device : devices)
    paths_.setVolume(device->name(), diskPaths_.hostPath("/Volumes/" + device->name()));
  return devices;
}

std::vector<cli::Device> AttachedFolders::attached() {
  center();
  if (!std::exchange(areAttached_, true)) {
    const auto arriving = std::make_shared<std::size_t>(0);
    for (const auto& folder : foldersToAttach())
      if (disks_.attach(folder, [arriving](bool) { --*arriving; })) ++*arriving;
    loop_.runUntil([&] { return *arriving == 0; });
  }
  return present();
}

base::Result<cli::Device> AttachedFolders::attach(const std::string& folder) {
  center();
  const auto isOver = std::make_shared<bool>(false);
  const auto begun = disks_.attach(folder, [isOver](bool) { *isOver = true; });
  if (!begun) return begun.error();
  const bool waited = loop_.runUntil([&] { return *isOver; });
  std::error_code none;
  for (const auto& device : present())
    if (fs::equivalent(place(*device), folder, none)) return device;
  return base::Error{"\"" + folder + "\": " + (waited ? "the folder is gone" : "it was interrupted")};
}

std::string AttachedFolders::place(const ZQRemovableDevice& volume) {
  return paths_.hostPath("/Volumes/" + volume.name());
}

bool AttachedFolders::holds(const ZQRemovableDevice& volume, const std::string& path) {
  std::error_code none;
  return isWithin(fs::weakly_canonical(path, none), fs::weakly_canonical(place(volume), none));
}

void AttachedFolders::standIn(const std::string& name, const ZQRemovableDevice& volume) {
  paths_.setVolume(name, place(volume));
}
