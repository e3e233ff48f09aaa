#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "base/date.h"

namespace base {

// How deep arrays and dictionaries may nest in a property list that is read.
inline constexpr int kMaxPropertyListDepth = 512;

// A property-list value: what settings, disk descriptions, string tables and tool outputs are made of.
class PropertyList {
 public:
  using Array = std::vector<PropertyList>;
  // Ordered by key, as the platform's own writers put dictionaries out.
  using Dictionary = std::map<std::string, PropertyList, std::less<>>;
  using Data = std::vector<std::byte>;
  // A reference into a keyed archive's object table; only the binary form can hold it.
  struct UID {
    std::uint64_t index = 0;
    friend bool operator==(UID, UID) = default;
  };
  // The platform gives a UID 32 bits.
  static constexpr std::uint64_t kLargestUID = 0xFFFFFFFF;

  PropertyList() : PropertyList(Dictionary{}) {}
  PropertyList(bool value) : value_(value) {}
  PropertyList(std::int64_t value) : value_(value) {}
  PropertyList(int value) : value_(std::int64_t{value}) {}
  PropertyList(double value) : value_(value) {}
  PropertyList(std::string value) : value_(std::move(value)) {}
  PropertyList(std::string_view value) : value_(std::string(value)) {}
  PropertyList(const char* value) : value_(std::string(value)) {}
  PropertyList(Date value) : value_(value) {}
  PropertyList(Data value) : value_(std::move(value)) {}
  PropertyList(UID value) : value_(value) {}
  PropertyList(Array value) : value_(std::move(value)) {}
  PropertyList(Dictionary value) : value_(std::move(value)) {}

  // The value as T (bool, std::int64_t, double, std::string, Date, Data, UID, Array, Dictionary), or nullptr
  // when it is of another kind. No conversions.
  template <class T>
  const T* as() const {
    return std::get_if<T>(&value_);
  }
  template <class T>
  T* as() {
    return std::get_if<T>(&value_);
  }

  friend bool operator==(const PropertyList&, const PropertyList&) = default;

 private:
  std::variant<bool, std::int64_t, double, std::string, Date, Data, UID, Array, Dictionary> value_;
};

// The entry under key as T, or nullptr when there is none of that kind.
template <class T>
const T* find(const PropertyList::Dictionary& dictionary, std::string_view key) {
  const auto entry = dictionary.find(key);
  return entry == dictionary.end() ? nullptr : entry->second.as<T>();
}

// The entry under key as a number, whether it is stored as an integer, a real or a boolean.
std::optional<double> findNumber(const PropertyList::Dictionary& dictionary, std::string_view key);

}  // namespace base
