#include "platform/linux/udisks_disks.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "base/date.h"
#include "platform/linux/block_names.h"
#include "platform/posix/media_identity.h"

namespace platform::freedesktop {
namespace {

constexpr std::string_view kNone = "/";  // the object path that stands for no object
constexpr int kMaxBackingDevices = 8;

const UDisksProperties kNothing;

const UDisksProperties& orNothing(const UDisksProperties* properties) {
  return properties == nullptr ? kNothing : *properties;
}

// A block device, and where it lies on which whole disk. What is in a LUKS device lies where that one does.
struct Slice {
  std::uint64_t sequence = 0;  // of the whole disk
  std::uint64_t number = 1;
  const UDisksProperties* partition = nullptr;
  const UDisksProperties* table = nullptr;
  const UDisksProperties* loop = nullptr;  // of the whole disk
  std::string drivePath;
  const UDisksProperties* drive = nullptr;
  bool isATA = false;
};

std::optional<std::string> outermostBackingDevice(const UDisksObjects& objects, std::string path) {
  for (int depth = 0; depth < kMaxBackingDevices; ++depth) {
    const auto* block = objects.find(path, "Block");
    if (block == nullptr) return std::nullopt;
    const auto backing = textOf(*block, "CryptoBackingDevice");
    if (backing.empty() || backing == kNone) return path;
    path = backing;
  }
  return std::nullopt;
}

bool findDrive(const UDisksObjects& objects, const UDisksProperties& block, Slice& slice) {
  const auto path = textOf(block, "Drive");
  if (path.empty() || path == kNone) return true;
  slice.drivePath = path;
  slice.drive = objects.find(path, "Drive");
  slice.isATA = objects.find(path, "Drive.Ata") != nullptr;
  return slice.drive != nullptr;
}

std::optional<Slice> sliceOf(const UDisksObjects& objects, const std::string& path,
                             const std::string& sysfs) {
  const auto place = outermostBackingDevice(objects, path);
  if (!place) return std::nullopt;
  Slice slice;
  slice.partition = objects.find(*place, "Partition");
  const std::string wholePath = slice.partition ? textOf(*slice.partition, "Table") : *place;
  const auto* whole = objects.find(wholePath, "Block");
  if (whole == nullptr || !findDrive(objects, *whole, slice)) return std::nullopt;
  if (slice.partition) slice.number = numberOf(*slice.partition, "Number");
  slice.table = objects.find(wholePath, "PartitionTable");
  slice.loop = objects.find(wholePath, "Loop");
  const auto sequence = diskSequence(sysfs, numberOf(*whole, "DeviceNumber"));
  if (!sequence) return std::nullopt;
  slice.sequence = *sequence;
  return slice;
}

// Its backing file may be told later.
bool isLoop(const Slice& slice) { return slice.loop != nullptr; }

std::string protocolOf(const Slice& slice) {
  if (isLoop(slice)) return "Virtual Interface";
  if (textOf(orNothing(slice.drive), "ConnectionBus") == "usb") return "USB";
  return slice.isATA ? "SATA" : "";
}

bool isInternal(const UDisksProperties& block, const Slice& slice) {
  return flagOf(block, "HintSystem") || (slice.drive && !flagOf(*slice.drive, "Removable"));
}

std::string iconOf(const UDisksProperties& block, const Slice& slice) {
  if (auto hint = textOf(block, "HintIconName"); !hint.empty()) return hint;
  if (protocolOf(slice) == "USB") return "drive-removable-media-usb";
  return isInternal(block, slice) ? "drive-harddisk" : "drive-removable-media";
}

std::string kindOf(const UDisksProperties& block) {
  const auto type = textOf(block, "IdType");
  if (type == "vfat") return "msdos";
  if (type == "hfsplus") return "hfs";
  if (type == "iso9660") return "cd9660";
  return type;
}

std::optional<std::string> uuidOf(const UDisksProperties& block, const Slice& slice) {
  return posix::mediaUUID({.partitionTable = textOf(orNothing(slice.table), "Type"),
                           .partition = textOf(orNothing(slice.partition), "UUID"),
                           .fileSystem = textOf(block, "IdUUID"),
                           .serial = textOf(orNothing(slice.drive), "Serial"),
                           .size = numberOf(block, "Size")});
}

class Description {
 public:
  void put(std::string_view key, base::PropertyList value) {
    entries_.insert_or_assign(std::string(key), std::move(value));
  }
  void putText(std::string_view key, const std::string& text) {
    if (!text.empty()) put(key, text);
  }
  ports::DiskDescription take() { return std::move(entries_); }

 private:
  ports::DiskDescription entries_;
};

// What whole disks and volumes have in common.
Description describeMedia(const UDisksDisk& disk, const UDisksProperties& block, const Slice& slice) {
  Description description;
  const auto& drive = orNothing(slice.drive);
  description.put(ports::kDADiskDescriptionMediaBSDNameKey, disk.bsdName);
  description.put(ports::kDADiskDescriptionMediaWholeKey, disk.whole);
  description.put(ports::kDADiskDescriptionMediaSizeKey, static_cast<std::int64_t>(numberOf(block, "Size")));
  description.put(ports::kDADiskDescriptionMediaWritableKey, !flagOf(block, "ReadOnly"));
  description.put(ports::kDADiskDescriptionMediaEjectableKey, flagOf(drive, "Ejectable"));
  description.put(ports::kDADiskDescriptionMediaIconKey, iconOf(block, slice));
  description.put(ports::kDADiskDescriptionDeviceInternalKey, isInternal(block, slice));
  description.putText(ports::kDADiskDescriptionDeviceProtocolKey, protocolOf(slice));
  description.putText(ports::kDADiskDescriptionDeviceVendorKey, textOf(drive, "Vendor"));
  if (const auto microseconds = numberOf(drive, "TimeMediaDetected"); microseconds > 0) {
    const auto seconds = static_cast<double>(microseconds) / 1e6;
    description.put(ports::kDAAppearanceTimeKey, base::Date::fromUnix(seconds).secondsSinceReferenceDate);
  }
  return description;
}

UDisksDisk wholeDisk(const std::string& path, const UDisksProperties& block, const Slice& slice) {
  UDisksDisk disk{.block = path,
                  .drive = slice.drivePath,
                  .bsdName = "disk" + std::to_string(slice.sequence),
                  .whole = true};
  disk.description = describeMedia(disk, block, slice).take();
  return disk;
}

UDisksDisk volume(const std::string& path, const UDisksProperties& block, const UDisksProperties& fileSystem,
                  const Slice& slice) {
  UDisksDisk disk{.block = path,
                  .drive = slice.drivePath,
                  .bsdName = "disk" + std::to_string(slice.sequence) + "s" + std::to_string(slice.number),
                  .wantedName = volumeName(textOf(block, "IdLabel"), textOf(orNothing(slice.drive), "Model"),
                                           numberOf(block, "Size")),
                  .mountPoint = firstTextOf(fileSystem, "MountPoints"),
                  .shouldBeMounted =
                      protocolOf(slice) == "USB" && !isInternal(block, slice) && flagOf(block, "HintAuto")};
  auto description = describeMedia(disk, block, slice);
  description.putText(ports::kDADiskDescriptionVolumeKindKey, kindOf(block));
  description.put(ports::kDADiskDescriptionVolumeMountableKey, true);
  if (const auto uuid = uuidOf(block, slice)) description.put(ports::kDADiskDescriptionMediaUUIDKey, *uuid);
  disk.description = description.take();
  return disk;
}

bool isWholeDisk(const UDisksObjects& objects, const std::string& path, const Slice& slice) {
  return objects.find(path, "Partition") == nullptr && (slice.drive || isLoop(slice)) &&
         outermostBackingDevice(objects, path) == path;
}

}  // namespace

std::vector<UDisksDisk> disksOf(const UDisksObjects& objects, const std::string& sysfs) {
  std::vector<UDisksDisk> disks;
  const auto add = [&](UDisksDisk disk) {
    // An image of an optical disc on a stick shows as the whole stick and as its first partition.
    if (std::ranges::find(disks, disk.bsdName, &UDisksDisk::bsdName) == disks.end())
      disks.push_back(std::move(disk));
  };
  for (const auto& [path, interfaces] : objects.all()) {
    const auto* block = objects.find(path, "Block");
    if (block == nullptr || flagOf(*block, "HintIgnore") || numberOf(*block, "Size") == 0) continue;
    const auto slice = sliceOf(objects, path, sysfs);
    if (!slice) continue;
    if (isWholeDisk(objects, path, *slice)) add(wholeDisk(path, *block, *slice));
    const auto* fileSystem = objects.find(path, "Filesystem");
    if (fileSystem) add(volume(path, *block, *fileSystem, *slice));
  }
  return disks;
}

}  // namespace platform::freedesktop
