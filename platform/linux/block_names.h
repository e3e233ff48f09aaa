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

// What to call a volume: its label, else the drive's model with the size ("Flash Drive 8 GB"). Always a name
// that can be a path component: what cannot be in one becomes "_".
std::string volumeName(std::string_view label, std::string_view driveModel, std::uint64_t size);

// "NAME", or "NAME 1", "NAME 2" and so on when that is taken.
std::string freeName(const std::string& wanted, const std::function<bool(const std::string&)>& isTaken);

}  // namespace platform::freedesktop
