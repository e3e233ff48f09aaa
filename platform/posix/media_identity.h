#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace platform::posix {

// What distinguishes a medium from others. Empty: not known.
struct MediaIdentity {
  std::string partitionTable;  // "gpt", "dos", ...
  std::string partition;       // as the table has it: a GUID in GPT, "cafe0001-01" in MBR
  std::string fileSystem;      // "CAFE-1234", or whatever its kind has for a UUID
  std::string serial;          // of the drive
  std::uint64_t size = 0;      // of the volume, in bytes

  friend bool operator==(const MediaIdentity&, const MediaIdentity&) = default;
};

// The canonical text of the medium's UUID: the partition's GUID where it has one, else made of the rest, so
// that the same medium has the same UUID wherever it is plugged in, and whoever asks. Nothing when nothing
// tells the medium from others of its size.
std::optional<std::string> mediaUUID(const MediaIdentity& identity);

// What udev and the kernel know of a block device, in the words of UDisks2, which has them from there. The
// device number is an st_rdev; sysfs is "/sys", udev "/run/udev".
MediaIdentity mediaIdentityOf(std::uint64_t deviceNumber, const std::string& sysfs = "/sys",
                              const std::string& udev = "/run/udev");

// The canonical text of the UUID (version 5) that a name has in a name space.
using UUIDBytes = std::array<unsigned char, 16>;
std::string nameUUID(const UUIDBytes& nameSpace, const std::string& name);

}  // namespace platform::posix
