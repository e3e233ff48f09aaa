#include "platform/linux/udisks_objects.h"

#include <algorithm>
#include <utility>

namespace platform::freedesktop {

void UDisksObjects::merge(const std::string& path, const UDisksInterfaces& interfaces) {
  auto& object = objects_[path];
  for (const auto& [name, properties] : interfaces) {
    auto& known = object[name];
    for (const auto& [key, value] : properties) known.insert_or_assign(key, value);
  }
}

void UDisksObjects::removeInterfaces(const std::string& path, const std::vector<std::string>& names) {
  const auto object = objects_.find(path);
  if (object == objects_.end()) return;
  for (const auto& name : names) object->second.erase(name);
  if (object->second.empty()) objects_.erase(object);
}

void UDisksObjects::change(const std::string& path, const std::string& interface,
                           const UDisksProperties& changed, const std::vector<std::string>& invalidated) {
  if (find(path, interface) == nullptr) return;
  auto& properties = objects_[path][interface];
  for (const auto& name : invalidated) properties.erase(name);
  for (const auto& [key, value] : changed) properties.insert_or_assign(key, value);
}

const UDisksProperties* UDisksObjects::find(std::string_view path, std::string_view interface) const {
  const auto object = objects_.find(path);
  if (object == objects_.end()) return nullptr;
  const auto found = object->second.find(interface);
  return found == object->second.end() ? nullptr : &found->second;
}

std::string textOf(const UDisksProperties& properties, std::string_view name) {
  const auto* text = base::find<std::string>(properties, name);
  return text == nullptr ? std::string() : *text;
}

bool flagOf(const UDisksProperties& properties, std::string_view name) {
  const auto* flag = base::find<bool>(properties, name);
  return flag != nullptr && *flag;
}

std::uint64_t numberOf(const UDisksProperties& properties, std::string_view name) {
  const auto* number = base::find<std::int64_t>(properties, name);
  return number == nullptr || *number < 0 ? 0 : static_cast<std::uint64_t>(*number);
}

std::string firstTextOf(const UDisksProperties& properties, std::string_view name) {
  const auto* list = base::find<base::PropertyList::Array>(properties, name);
  const auto* text = list == nullptr || list->empty() ? nullptr : list->front().as<std::string>();
  return text == nullptr ? std::string() : *text;
}

}  // namespace platform::freedesktop
