#include "tests/image/memory_volume.h"

#include <algorithm>
#include <span>

std::uint32_t MemoryVolume::add(std::uint32_t parent, std::string name, image::Item item) {
  item.id = nextID_++;
  item.user = item.group = 0;
  item.modified = {.seconds = 1'000'000'000, .nanoseconds = 123'456'789};
  item.accessed = item.modified;
  items_[parent].children.emplace_back(std::move(name), item.id);
  items_[item.id].item = item;
  return item.id;
}

base::Result<std::optional<image::Item>> MemoryVolume::lookup(std::uint32_t folder,
                                                              std::string_view name) const {
  for (const auto& [own, id] : items_.at(folder).children)
    if (own == name) return std::optional(items_.at(id).item);
  return std::optional<image::Item>();
}

base::Result<void> MemoryVolume::list(std::uint32_t folder, const image::Visitor& visit) const {
  for (const auto& [name, id] : items_.at(folder).children)
    if (auto visited = visit(name, items_.at(id).item); !visited) return visited;
  return {};
}

base::Result<std::size_t> MemoryVolume::read(std::uint32_t id, std::uint64_t offset,
                                             std::span<std::byte> into) const {
  if (auto allowed = onRead(id, offset); !allowed) return allowed.error();
  const auto data = std::as_bytes(std::span(items_.at(id).data));
  if (offset >= data.size()) return std::size_t{0};
  const auto part = data.subspan(offset, std::min<std::size_t>(into.size(), data.size() - offset));
  std::ranges::copy(part, into.begin());
  return part.size();
}

base::Result<std::vector<std::string>> MemoryVolume::attributeNames(std::uint32_t id) const {
  std::vector<std::string> names;
  for (const auto& [name, value] : items_.at(id).attributes) names.push_back(name);
  return names;
}

base::Result<std::optional<std::vector<std::byte>>> MemoryVolume::attribute(std::uint32_t id,
                                                                            std::string_view name) const {
  using Value = std::optional<std::vector<std::byte>>;
  if (name == unreadableAttribute) return base::Error{"bad node"};
  const auto& attributes = items_.at(id).attributes;
  const auto found = attributes.find(name);
  if (found == attributes.end()) return Value();
  const auto bytes = std::as_bytes(std::span(found->second));
  return Value(std::in_place, bytes.begin(), bytes.end());
}
