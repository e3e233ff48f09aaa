#pragma once

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <vector>

#include "image/volume.h"

namespace image {

// What a walk met; a damaged volume stops a walk in many places.
struct Walked {
  std::size_t items = 0;
  std::size_t errors = 0;
};

// Asks a volume for everything that it says it has: lists folders, looks names up, reads the beginning and
// the end of files, targets and attributes. Each item once, however often it is linked.
class VolumeWalk {
 public:
  explicit VolumeWalk(const Volume& volume) : volume_(volume) {}

  Walked run() {
    folders_.push_back(volume_.rootID());
    while (!folders_.empty() && walked_.items < kMostItems) {
      const auto folder = folders_.back();
      folders_.pop_back();
      count(volume_.list(folder, [&](std::string_view name, const Item& item) -> base::Result<void> {
        count(volume_.lookup(folder, name));
        if (seen_.insert(item.id).second) visit(item);
        if (++walked_.items == kMostItems) return base::Error{"enough"};
        return {};
      }));
      count(volume_.lookup(folder, "none of that name"));
    }
    return walked_;
  }

 private:
  static constexpr std::size_t kMostItems = 5'000;

  template <class T>
  void count(const base::Result<T>& result) {
    if (!result) ++walked_.errors;
  }

  void visit(const Item& item) {
    count(volume_.item(item.id));
    if (item.kind == ItemKind::folder) folders_.push_back(item.id);
    if (item.kind == ItemKind::symbolicLink) count(volume_.linkTarget(item.id));
    if (item.kind == ItemKind::file) {
      std::vector<std::byte> bytes(200'000);
      count(volume_.read(item.id, 0, bytes));
      count(volume_.read(item.id, item.size - std::min<std::uint64_t>(item.size, 5'000), bytes));
    }
    const auto names = volume_.attributeNames(item.id);
    count(names);
    if (!names) return;
    for (const auto& name : *names) count(volume_.attribute(item.id, name));
  }

  const Volume& volume_;
  Walked walked_;
  std::vector<std::uint32_t> folders_;
  std::set<std::uint32_t> seen_;
};

}  // namespace image
