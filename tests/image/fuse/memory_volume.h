#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>

#include "image/volume.h"

// A volume that a test builds in memory.
class MemoryVolume : public image::Volume {
 public:
  static constexpr std::uint32_t kRoot = 2;

  explicit MemoryVolume(std::string name) {
    facts_ = {.name = std::move(name),
              .isCaseSensitive = true,
              .bytes = 1 << 20,
              .freeBytes = 1 << 19,
              .blockBytes = 4096};
    items_[kRoot].item = {.id = kRoot, .kind = image::ItemKind::folder, .permissions = 0755};
  }

  image::Item& add(std::uint32_t folder, const std::string& name, image::ItemKind kind) {
    const std::uint32_t id = next_++;
    items_[folder].names[name] = id;
    items_[id].item = {.id = id, .kind = kind, .permissions = 0644};
    return items_[id].item;
  }
  image::Item& addFile(std::uint32_t folder, const std::string& name, const std::string& data) {
    auto& item = add(folder, name, image::ItemKind::file);
    item.size = data.size();
    item.storedSize = (data.size() + 4095) / 4096 * 4096;
    items_[item.id].data = data;
    return item;
  }
  image::Item& addLink(std::uint32_t folder, const std::string& name, const std::string& target) {
    auto& item = add(folder, name, image::ItemKind::symbolicLink);
    item.size = target.size();
    items_[item.id].data = target;
    return item;
  }
  void addName(std::uint32_t folder, const std::string& name, std::uint32_t id) {
    items_[folder].names[name] = id;
  }
  void addAttribute(std::uint32_t id, const std::string& name, const std::string& value) {
    items_[id].attributes[name] = value;
  }
  // Reading it gives an error from now on.
  void damage(std::uint32_t id) { items_[id].isDamaged = true; }

  const image::VolumeFacts& facts() const override { return facts_; }
  std::uint32_t rootID() const override { return kRoot; }
  base::Result<std::optional<image::Item>> lookup(std::uint32_t folder,
                                                  std::string_view name) const override {
    const auto& names = items_.at(folder).names;
    const auto found = names.find(name);
    if (found == names.end()) return std::optional<image::Item>();
    return std::optional(items_.at(found->second).item);
  }
  base::Result<image::Item> item(std::uint32_t id) const override { return items_.at(id).item; }
  base::Result<void> list(std::uint32_t folder, const image::Visitor& visit) const override {
    for (const auto& [name, id] : items_.at(folder).names)
      if (auto visited = visit(name, items_.at(id).item); !visited) return visited;
    return {};
  }
  base::Result<std::string> linkTarget(std::uint32_t id) const override { return items_.at(id).data; }
  base::Result<std::size_t> read(std::uint32_t id, std::uint64_t offset,
                                 std::span<std::byte> into) const override {
    const auto found = items_.find(id);
    if (found == items_.end()) return base::Error{"there is no such item"};
    const Entry& entry = found->second;
    if (entry.item.kind != image::ItemKind::file) return base::Error{"it is not a file"};
    if (entry.isDamaged) return base::Error{"damaged"};
    if (offset >= entry.data.size()) return std::size_t{0};
    const auto size = std::min<std::size_t>(into.size(), entry.data.size() - offset);
    std::memcpy(into.data(), entry.data.data() + offset, size);
    return size;
  }
  base::Result<std::vector<std::string>> attributeNames(std::uint32_t id) const override {
    std::vector<std::string> names;
    for (const auto& [name, value] : items_.at(id).attributes) names.push_back(name);
    return names;
  }
  base::Result<std::optional<std::vector<std::byte>>> attribute(std::uint32_t id,
                                                                std::string_view name) const override {
    const auto& attributes = items_.at(id).attributes;
    const auto found = attributes.find(name);
    if (found == attributes.end()) return std::optional<std::vector<std::byte>>();
    const auto* bytes = reinterpret_cast<const std::byte*>(found->second.data());
    return std::optional(std::vector<std::byte>(bytes, bytes + found->second.size()));
  }

 private:
  struct Entry {
    image::Item item;
    std::map<std::string, std::uint32_t, std::less<>> names;
    std::string data;
    std::map<std::string, std::string, std::less<>> attributes;
    bool isDamaged = false;
  };

  image::VolumeFacts facts_;
  std::map<std::uint32_t, Entry> items_;
  std::uint32_t next_ = 16;
};
