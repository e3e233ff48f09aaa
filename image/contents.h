#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "image/volume.h"

namespace image {

// The names in a path: what stands between its '/'s but for "" and ".".
std::vector<std::string> partsOfPath(std::string_view path);

// What is in a volume, or in parts of it: every item once for each of its names. After read() it does not
// change, and any number of threads may ask it.
class Contents {
 public:
  using Index = std::uint32_t;
  static constexpr Index kRoot = 0;
  static constexpr Index kNone = std::numeric_limits<Index>::max();

  struct Entry {
    Item item;
    Index parent = kNone;
    // A folder's own, one after the other.
    Index firstChild = 0;
    std::uint32_t children = 0;
    std::uint64_t nameOffset = 0;
    std::uint32_t nameBytes = 0;
  };

  // Paths: what to read, with everything below and the folders on the way; none: everything. Their parts are
  // matched as the volume matches names. Refused are a path that is not there, a name that no file can have
  // ("..", "a/b"), a folder that is inside itself, and folders that hard links show again and again, with
  // more than a million items. cancelled: looked at once for each folder; may be
  // null.
  static base::Result<Contents> read(const Volume& volume, std::span<const std::string> paths,
                                     const std::atomic<bool>* cancelled);

  // Folders before what is in them; the volume's root first.
  const std::vector<Entry>& entries() const { return entries_; }
  const Entry& operator[](Index entry) const { return entries_[entry]; }
  std::string_view name(Index entry) const {
    return std::string_view(names_).substr(entries_[entry].nameOffset, entries_[entry].nameBytes);
  }
  // From the root, without a '/' in front; empty for the root.
  std::string path(Index entry) const;

  // Everything below a folder, or just what is none; a folder followed by what is in it.
  template <class Visit>
  void forEachInOrder(Index from, Visit visit) const {
    auto next = entries_[from].item.kind == ItemKind::folder ? childrenReversed(from) : std::vector{from};
    while (!next.empty()) {
      const Index entry = next.back();
      next.pop_back();
      visit(entry);
      const auto children = childrenReversed(entry);
      next.insert(next.end(), children.begin(), children.end());
    }
  }

 private:
  class Reading;

  Contents() = default;
  std::vector<Index> childrenReversed(Index folder) const;

  std::vector<Entry> entries_;
  std::string names_;
};

}  // namespace image
