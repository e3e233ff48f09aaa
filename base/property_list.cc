#include "base/property_list.h"

namespace base {

std::optional<double> findNumber(const PropertyList::Dictionary& dictionary, std::string_view key) {
  if (const auto* integer = find<std::int64_t>(dictionary, key)) return static_cast<double>(*integer);
  if (const auto* real = find<double>(dictionary, key)) return *real;
  if (const auto* boolean = find<bool>(dictionary, key)) return *boolean ? 1.0 : 0.0;
  return std::nullopt;
}

}  // namespace base
