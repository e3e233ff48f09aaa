#include "devices/removable_device.h"

#include <array>
#include <cstdio>
#include <string_view>
#include <utility>

#include "base/format.h"

namespace {

using ports::DiskDescription;

std::string volumePath(const std::string& name) { return base::stringWithFormat("/Volumes/%@", {name}); }

std::optional<std::string> text(const DiskDescription& description, std::string_view key) {
  const auto* value = base::find<std::string>(description, key);
  return value ? std::optional(*value) : std::nullopt;
}

bool flag(const DiskDescription& description, std::string_view key) {
  const auto* value = base::find<bool>(description, key);
  return value && *value;
}

// Single precision on purpose: sizes and times are rounded to 24 bits.
float single(const DiskDescription& description, std::string_view key) {
  return static_cast<float>(base::findNumber(description, key).value_or(0));
}

ZQRemovableDeviceProtocol protocolFromText(const std::optional<std::string>& name) {
  if (name == "USB") return ZQRemovableDeviceProtocolUSB;
  if (name == "SATA") return ZQRemovableDeviceProtocolSATA;
  if (name == "ATA") return ZQRemovableDeviceProtocolATA;
  if (name == "Virtual Interface") return ZQRemovableDeviceProtocolVirtualInterface;
  return ZQRemovableDeviceProtocolUnknown;
}

ZQRemovableDeviceType typeOf(const DiskDescription& description, ZQRemovableDeviceProtocol protocol) {
  if (flag(description, ports::kDADiskDescriptionDeviceInternalKey)) return ZQRemovableDeviceTypeInternal;
  return protocol == ZQRemovableDeviceProtocolVirtualInterface ? ZQRemovableDeviceTypeVirtual
                                                               : ZQRemovableDeviceTypeExternal;
}

std::optional<std::string> diskUtilityName(ZQRemovableDeviceFileSystem fileSystem) {
  switch (fileSystem) {
    case ZQRemovableDeviceFileSystemFAT16:
      return "FAT16";
    case ZQRemovableDeviceFileSystemFAT32:
      return "FAT32";
    case ZQRemovableDeviceFileSystemHFSPlus:
      return "HFS+";
    case ZQRemovableDeviceFileSystemJournaledHFSPlus:
      return "JHFS+";
  }
  return std::nullopt;
}

// Indexed by status minus kDAReturnError.
constexpr std::array<const char*, 12> kStatusNames = {
    "kDAReturnError",         "kDAReturnBusy",     "kDAReturnBadArgument", "kDAReturnExclusiveAccess",
    "kDAReturnNoResources",   "kDAReturnNotFound", "kDAReturnNotMounted",  "kDAReturnNotPermitted",
    "kDAReturnNotPrivileged", "kDAReturnNotReady", "kDAReturnNotWritable", "kDAReturnUnsupported",
};

void ejectCompleted(const ports::Host& host, const std::optional<ports::Dissenter>& dissenter) {
  host.notifications.post(ZQRemovableDeviceCenterDataReloadedNotification);
  if (!dissenter) return;
  const ports::DAReturn index = dissenter->status - ports::kDAReturnError;
  if (index < kStatusNames.size()) host.log.log(kStatusNames[index]);
}

// Serves mount and unmount alike; the text "Eject OK" for both is on purpose.
void mountStateChanged(const ports::Host& host, const std::optional<ports::Dissenter>& dissenter) {
  host.notifications.post(ZQRemovableDeviceCenterDataReloadedNotification);
  if (!dissenter) return;
  if (dissenter->status == ports::kDAReturnSuccess) host.log.log("Eject OK");
  if (dissenter->status == ports::kDAReturnBusy) std::puts("kDAReturnBusy");
}

}  // namespace

std::shared_ptr<ZQRemovableDevice> ZQRemovableDevice::_initWithDiscDescription(
    const ports::Host& host, const ports::DiskDescription& description, ports::DiskRef withRef) {
  auto name = text(description, ports::kDADiskDescriptionVolumeNameKey);
  if (text(description, ports::kDADiskDescriptionVolumeKindKey) == "autofs") return nullptr;
  if (!name || name->empty()) return nullptr;
  return std::shared_ptr<ZQRemovableDevice>(
      new ZQRemovableDevice(host, description, std::move(*name), std::move(withRef)));
}

ZQRemovableDevice::ZQRemovableDevice(const ports::Host& host, const ports::DiskDescription& description,
                                     std::string name, ports::DiskRef reference)
    : host_(host),
      currentReference_(std::move(reference)),
      name_(std::move(name)),
      vendor_(text(description, ports::kDADiskDescriptionDeviceVendorKey)),
      UDID_(text(description, ports::kDADiskDescriptionMediaUUIDKey)),
      BSDName_(text(description, ports::kDADiskDescriptionMediaBSDNameKey)),
      protocol_(protocolFromText(text(description, ports::kDADiskDescriptionDeviceProtocolKey))),
      type_(typeOf(description, protocol_)),
      size_(single(description, ports::kDADiskDescriptionMediaSizeKey)),
      connectionDate_{single(description, ports::kDAAppearanceTimeKey)},
      writable_(flag(description, ports::kDADiskDescriptionMediaWritableKey)),
      mountable_(flag(description, ports::kDADiskDescriptionVolumeMountableKey)),
      ejectable_(flag(description, ports::kDADiskDescriptionMediaEjectableKey)),
      mounted_(host.files.fileExists(volumePath(name_))) {
  if (description.contains(ports::kDADiskDescriptionMediaIconKey)) {
    icon_ = host.desktop.iconForFile(volumePath(name_));
  }
}

bool ZQRemovableDevice::isEqual(const ZQRemovableDevice& other) const {
  return name_ == other.name_ && type_ == other.type_;
}

void ZQRemovableDevice::eject() {
  if (mounted_) {
    unmount();
    return;
  }
  host_.disks.eject(currentReference_,
                    [host = host_](const auto& dissenter) { ejectCompleted(host, dissenter); });
}

void ZQRemovableDevice::mount() {
  host_.disks.mount(currentReference_,
                    [host = host_](const auto& dissenter) { mountStateChanged(host, dissenter); });
}

void ZQRemovableDevice::unmount() {
  if (claimed_) unclaim();
  host_.disks.unmount(currentReference_,
                      [host = host_](const auto& dissenter) { mountStateChanged(host, dissenter); });
}

void ZQRemovableDevice::claim() {
  host_.disks.claim(currentReference_);
  claimed_ = true;
}

void ZQRemovableDevice::unclaim() {
  host_.disks.unclaim(currentReference_);
  claimed_ = false;
}

void ZQRemovableDevice::rename(const std::string& name) {
  host_.disks.rename(currentReference_, name);
  host_.notifications.post(ZQRemovableDeviceCenterDataReloadedNotification);
}

void ZQRemovableDevice::formatDiscUsingFileSystem(ZQRemovableDeviceFileSystem fileSystem) {
  host_.notifications.post(ZQRemovableDeviceFormatBeganNotification);
  const auto fileSystemName = diskUtilityName(fileSystem);
  // Kept on purpose: no parsing, the slice suffix is taken to be two characters long.
  std::string wholeDisk = BSDName_.value_or("");
  wholeDisk.erase(wholeDisk.size() - 2);
  ports::ToolRun erase{.launchPath = "/usr/sbin/diskutil", .arguments = {"eraseDisk"}};
  // Kept on purpose: a missing file-system name ends the argument list.
  if (fileSystemName) erase.arguments.insert(erase.arguments.end(), {*fileSystemName, name_, wholeDisk});
  host_.tools.run(erase);
  host_.notifications.post(ZQRemovableDeviceFormatCompleteNotification);
}

ports::DiskRef ZQRemovableDevice::discReferenceFromPath(const ports::Host& host,
                                                        const base::FileURL& volume) {
  return host.disks.diskFromVolumePath(volume);
}
