#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "image/volume.h"

// A volume that holds what a test puts into it, sound or not.
class MemoryVolume : public image::Volume {
 public:
  static constexpr std::uint32_t kRoot = 2;

  MemoryVolume() {
    items_[kRoot] = {.item = {.id = kRoot, .kind = image::ItemKind::folder, .permissions = 0755}};
  }

  std::uint32_t addFolder(std::uint32_t parent, std::string name) {
    return add(parent, std::move(name), {.kind = image::ItemKind::folder, .permissions = 0755});
  }
  std::uint32_t addFile(std::uint32_t parent, std::string name, std::string data) {
    const std::uint64_t size = data.size();
    const auto id =
        add(parent, std::move(name), {.kind = image::ItemKind::file, .permissions = 0644, .size = size});
    items_[id].data = std::move(data);
    return id;
  }
  std::uint32_t addLink(std::uint32_t parent, std::string name, std::string target) {
    const auto id =
        add(parent, std::move(name), {.kind = image::ItemKind::symbolicLink, .permissions = 0777});
    items_[id].data = std::move(target);
    return id;
  }
  // Another name for an item.
  void addName(std::uint32_t parent, std::string name, std::uint32_t id) {
    ++items_[id].item.links;
    items_[parent].children.emplace_back(std::move(name), id);
  }
  image::Item& edit(std::uint32_t id) { return items_[id].item; }
  void setAttribute(std::uint32_t id, const std::string& name, const std::string& value) {
    items_[id].attributes[name] = value;
  }
  // Asked before each reading of data; an Error is what the reading gives.
  std::function<base::Result<void>(std::uint32_t id, std::uint64_t offset)> onRead = [](auto, auto) {
    return base::Result<void>();
  };

  // Reading an extended attribute of that name gives an Error.
  std::string unreadableAttribute{};

  const image::VolumeFacts& facts() const override { return facts_; }
  std::uint32_t rootID() const override { return kRoot; }
  base::Result<std::optional<image::Item>> lookup(std::uint32_t folder, std::string_view name) const override;
  base::Result<image::Item> item(std::uint32_t id) const override { return items_.at(id).item; }
  base::Result<void> list(std::uint32_t folder, const image::Visitor& visit) const override;
  base::Result<std::string> linkTarget(std::uint32_t id) const override { return items_.at(id).data; }
  base::Result<std::size_t> read(std::uint32_t id, std::uint64_t offset,
                                 std::span<std::byte> into) const override;
  base::Result<std::vector<std::string>> attributeNames(std::uint32_t id) const override;
  base::Result<std::optional<std::vector<std::byte>>> attribute(std::uint32_t id,
                                                                std::string_view name) const override;

 private:
  struct Kept {
    image::Item item;
    std::string data{};
    std::vector<std::pair<std::string, std::uint32_t>> children{};
    std::map<std::string, std::string, std::less<>> attributes{};
  };

  std::uint32_t add(std::uint32_t parent, std::string name, image::Item item);

  image::VolumeFacts facts_{.name = "Memory", .isCaseSensitive = true};
  std::map<std::uint32_t, Kept> items_;
  std::uint32_t nextID_ = 16;
};
