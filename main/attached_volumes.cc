#include "main/attached_volumes.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <pwd.h>
#include <set>
#include <unistd.h>

#include "platform/embedded/volume_folder.h"
#include "platform/linux/block_names.h"
#include "platform/linux/udisks_disks.h"
#include "platform/linux/udisks_listing.h"
#include "platform/posix/folder_disks.h"

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::milliseconds kPatience{5000};

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

// Nothing where no UDisks2 answers.
std::optional<std::vector<RunningAgent::Volume>> volumesOfUDisks() {
  const auto objects = platform::freedesktop::listUDisks(kPatience);
  if (!objects) return std::nullopt;
  std::vector<RunningAgent::Volume> volumes;
  std::set<std::string> names;
  for (auto& disk : platform::freedesktop::disksOf(*objects, "/sys")) {
    if (disk.whole) continue;
    const auto name = platform::freedesktop::freeName(
        disk.wantedName, [&](const std::string& taken) { return names.contains(taken); });
    names.insert(name);
    disk.description.insert_or_assign(std::string(ports::kDADiskDescriptionVolumeNameKey), name);
    volumes.push_back({std::move(disk.description), disk.mountPoint});
  }
  return volumes;
}

}  // namespace

base::Result<void> AttachedVolumes::lookIn(const std::string& folder) {
  volumesFolder_ = folder;
  return disks_.watchVolumesFolder(folder);
}

std::vector<std::string> AttachedVolumes::foldersToAttach() const {
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

ZQRemovableDeviceCenter& AttachedVolumes::center() {
  if (!center_) center_ = std::make_unique<ZQRemovableDeviceCenter>(host_);
  return *center_;
}

std::vector<cli::Device> AttachedVolumes::present() {
  auto devices = center().availableDevices();
  for (const auto& device : devices)
    paths_.setVolume(device->name(), diskPaths_.hostPath("/Volumes/" + device->name()));
  return devices;
}

std::vector<cli::Device> AttachedVolumes::attached() {
  if (!std::exchange(hasLooked_, true)) look();
  auto devices = described_;
  if (center_) std::ranges::copy(present(), std::back_inserter(devices));
  return devices;
}

void AttachedVolumes::look() {
  if (volumesFolder_) return attachFolders();
  const auto agents = agent_.volumes();
  areAgents_ = agents.has_value();
  if (const auto volumes = agents ? agents : volumesOfUDisks()) return take(*volumes);
  attachFolders();
}

void AttachedVolumes::take(const Described& volumes) {
  for (const auto& [description, folder] : volumes) {
    const auto* name = base::find<std::string>(description, ports::kDADiskDescriptionVolumeNameKey);
    if (name && !folder.empty()) paths_.setVolume(*name, folder);
    auto device = ZQRemovableDevice::_initWithDiscDescription(
        host_, description, std::make_shared<platform::posix::FolderDisk>(description, folder));
    if (device && device->type() == ZQRemovableDeviceTypeExternal &&
        device->protocol() == ZQRemovableDeviceProtocolUSB)
      described_.push_back(std::move(device));
  }
}

void AttachedVolumes::attachFolders() {
  center();
  const auto arriving = std::make_shared<std::size_t>(0);
  for (const auto& folder : foldersToAttach())
    if (disks_.attach(folder, [arriving](bool) { --*arriving; })) ++*arriving;
  loop_.runUntil([&] { return *arriving == 0; });
}

base::Result<cli::Device> AttachedVolumes::attach(const std::string& folder) {
  const auto isThere = [&](const cli::Device& device) {
    std::error_code none;
    return fs::equivalent(place(*device), folder, none);
  };
  std::error_code none;
  const auto identity = platform::embedded::identifyFolder(fs::canonical(folder, none));
  if (identity && identity->isMountPoint && !volumesFolder_) {
    attached();
    const auto found = std::ranges::find_if(described_, isThere);
    if (found != described_.end()) return *found;
  }
  center();
  const auto isOver = std::make_shared<bool>(false);
  const auto begun = disks_.attach(folder, [isOver](bool) { *isOver = true; });
  if (!begun) return begun.error();
  const bool waited = loop_.runUntil([&] { return *isOver; });
  for (const auto& device : present())
    if (isThere(device)) return device;
  return base::Error{"\"" + folder + "\": " + (waited ? "the folder is gone" : "it was interrupted")};
}

bool AttachedVolumes::isDescribed(const ZQRemovableDevice& volume) const {
  return std::ranges::any_of(described_, [&](const cli::Device& device) { return device.get() == &volume; });
}

cli::Agent* AttachedVolumes::agentOf(const ZQRemovableDevice& volume) {
  return areAgents_ && isDescribed(volume) ? &agent_ : nullptr;
}

std::string AttachedVolumes::place(const ZQRemovableDevice& volume) {
  const bool isMounted = volume.mounted() || !isDescribed(volume);
  return isMounted ? paths_.hostPath("/Volumes/" + volume.name()) : "";
}

bool AttachedVolumes::holds(const ZQRemovableDevice& volume, const std::string& path) {
  std::error_code none;
  return isWithin(fs::weakly_canonical(path, none), fs::weakly_canonical(place(volume), none));
}

void AttachedVolumes::standIn(const std::string& name, const ZQRemovableDevice& volume) {
  paths_.setVolume(name, place(volume));
}
