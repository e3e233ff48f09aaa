#include "store/file_size.h"

#include <array>
#include <charconv>

namespace {

std::string fixed(double value, int decimals) {
  std::array<char, 64> text;
  const auto end =
      std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, decimals);
  return {text.data(), end.ptr};
}

}  // namespace

std::string FileSize::stringFromFileSize(std::uint64_t bytes) {
  constexpr double kStep = 1.0 / 1024;
  if (bytes <= 1022) return std::to_string(bytes) + " bytes";
  double size = static_cast<double>(bytes) * kStep;
  if (size < 1023.0) return fixed(size, 1) + " KB";
  size *= kStep;
  if (size < 1023.0) return fixed(size, 2) + " MB";
  return fixed(size * kStep, 2) + " GB";
}

std::uint64_t FileSize::sizeOfFile(const std::string& path) const {
  return files_.fileSize(path).value_or(0);
}

std::uint64_t FileSize::sizeOfFolder(const std::string& path) const {
  std::uint64_t total = 0;
  files_.enumerate(path, {}, [&](const ports::FileItem& item) {
    total += sizeOfFile(std::string(item.path));
    return true;
  });
  return total;
}
