#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace platform::freedesktop {

// The number that the kernel gave to a whole disk when it, or its medium, came: never given again until the
// next boot. Nothing when there is no such disk, or the kernel (before 5.15) numbers none.
// sysfs is "/sys"; the device number is the st_rdev of the disk's node.
std::optional<std::uint64_t> diskSequence(const std::string& sysfs, std::uint64_t deviceNumber);

// What distinguishes a medium from others. Empty: not known.
struct MediaIdentity {
  std::string partitionTable;  // "gpt", "dos", ...
  std::string partition;       // as the table has it: a GUID in GPT, "cafe0001-01" in MBR
  std::string fileSystem;      // "CAFE-1234", or whatever its kind has for a UUID
  std::string serial;          // of the drive
  std::uint64_t size = 0;      // of the volume, in bytes
};

// The canonical text of the medium's UUID: the partition's GUID where it has one, else made of the rest, so
// that the same medium has the same UUID wherever it is plugged in. Nothing when nothing tells the medium
// from others of its size.
std::optional<std::string> mediaUUID(const MediaIdentity& identity);

// What to call a volume: its label, else the drive's model with the size ("Flash Drive 8 GB"). Always a name
// that can be a path component: what cannot be in one becomes "_".
std::string volumeName(std::string_view label, std::string_view driveModel, std::uint64_t size);

// "NAME", or "NAME 1", "NAME 2" and so on when that is taken.
std::string freeName(const std::string& wanted, const std::function<bool(const std::string&)>& isTaken);

}  // namespace platform::freedesktop
