#include "base/byte_text.h"

#include <array>
#include <cstdio>

namespace base {

std::string byteText(double bytes) {
  constexpr std::array kUnits{"KB", "MB", "GB", "TB"};
  std::size_t unit = 0;
  double value = bytes / 1000;
  for (; value >= 1000 && unit + 1 < kUnits.size(); ++unit) value /= 1000;
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), value < 10 ? "%.1f %s" : "%.0f %s", value, kUnits[unit]);
  return text.data();
}

}  // namespace base
