#include "platform/linux/block_names.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <sys/sysmacros.h>

#include "platform/posix/path_map.h"

namespace platform::freedesktop {
namespace {

// In the decimal units that are printed on drives, rounded to whole ones.
std::string roundedSize(std::uint64_t bytes) {
  constexpr std::array kUnits = {"bytes", "KB", "MB", "GB", "TB", "PB", "EB"};
  std::size_t unit = 0;
  std::uint64_t scale = 1;
  while (unit + 1 < kUnits.size() && bytes / scale >= 1000) {
    scale *= 1000;
    ++unit;
  }
  return std::to_string(bytes / scale + (bytes % scale * 2 >= scale && scale > 1 ? 1 : 0)) + " " +
         kUnits.at(unit);
}

std::string sanitised(std::string_view text) {
  std::string name(text);
  std::ranges::replace_if(
      name, [](char c) { return c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '_');
  return name;
}

bool isBlank(std::string_view text) { return text.find_first_not_of(' ') == text.npos; }

}  // namespace

std::optional<std::uint64_t> diskSequence(const std::string& sysfs, std::uint64_t deviceNumber) {
  std::ifstream file(sysfs + "/dev/block/" + std::to_string(major(deviceNumber)) + ":" +
                     std::to_string(minor(deviceNumber)) + "/diskseq");
  std::uint64_t sequence = 0;
  if (!(file >> sequence)) return std::nullopt;
  return sequence;
}

std::string volumeName(std::string_view label, std::string_view driveModel, std::uint64_t size) {
  std::string name = sanitised(label);
  if (!isBlank(name) && posix::PathMap::isVolumeName(name)) return name;
  return (isBlank(driveModel) ? "Volume" : sanitised(driveModel)) + " " + roundedSize(size);
}

std::string freeName(const std::string& wanted, const std::function<bool(const std::string&)>& isTaken) {
  std::string name = wanted;
  for (int count = 1; isTaken(name); ++count) name = wanted + " " + std::to_string(count);
  return name;
}

}  // namespace platform::freedesktop
