#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/property_list.h"

namespace platform::freedesktop {

// Properties of one interface. Booleans, whole numbers and texts are what they are; object paths and file
// names (zero-terminated bytes) are texts; lists of these are arrays. Other types are left out.
using UDisksProperties = base::PropertyList::Dictionary;

// An object's interfaces, by their names without "org.freedesktop.UDisks2.".
using UDisksInterfaces = std::map<std::string, UDisksProperties, std::less<>>;

// What UDisks2 has told of its objects so far. Signals may come late, twice and in pieces: each adds to what
// is known, and only a removal takes away.
class UDisksObjects {
 public:
  using ByPath = std::map<std::string, UDisksInterfaces, std::less<>>;

  void replaceAll(ByPath objects) { objects_ = std::move(objects); }
  void merge(const std::string& path, const UDisksInterfaces& interfaces);
  void removeInterfaces(const std::string& path, const std::vector<std::string>& names);
  // For an object that is known with this interface; for others nothing happens, as they are told whole
  // later.
  void change(const std::string& path, const std::string& interface, const UDisksProperties& changed,
              const std::vector<std::string>& invalidated);

  const ByPath& all() const { return objects_; }
  // The interface's properties, or nullptr when the object or the interface is not known.
  const UDisksProperties* find(std::string_view path, std::string_view interface) const;

 private:
  ByPath objects_;
};

// The property as a text, a flag, a number, or what these are when it is missing: "", false, 0.
std::string textOf(const UDisksProperties& properties, std::string_view name);
bool flagOf(const UDisksProperties& properties, std::string_view name);
std::uint64_t numberOf(const UDisksProperties& properties, std::string_view name);
// The first text of a list, or "".
std::string firstTextOf(const UDisksProperties& properties, std::string_view name);

}  // namespace platform::freedesktop
