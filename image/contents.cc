#include "image/contents.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <unordered_set>

namespace image {
namespace {

bool canBeAFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

// What was asked for, as a tree of names.
struct Wanted {
  Item item;
  bool whole = false;
  std::map<std::string, Wanted> below{};
};

// The item that a folder has under a name, and the name as the folder spells it.
base::Result<std::optional<std::pair<std::string, Item>>> find(const Volume& volume, std::uint32_t folder,
                                                               const std::string& name) {
  std::optional<std::pair<std::string, Item>> found;
  const auto item = volume.lookup(folder, name);
  if (!item) return item.error();
  if (!*item) return found;
  const auto listed = volume.list(folder, [&](std::string_view spelled, const Item& other) {
    if (other.id == (*item)->id && (!found || spelled == name)) found.emplace(spelled, other);
    return base::Result<void>();
  });
  if (!listed) return listed.error();
  return found;
}

base::Result<void> want(const Volume& volume, Wanted& root, const std::string& path) {
  Wanted* at = &root;
  for (const std::string& part : partsOfPath(path)) {
    if (at->item.kind != ItemKind::folder) return base::Error{path + ": there is no such item in the image"};
    auto found = find(volume, at->item.id, part);
    if (!found) return found.error();
    if (!*found) return base::Error{path + ": there is no such item in the image"};
    at = &at->below.try_emplace((*found)->first, Wanted{.item = (*found)->second}).first->second;
  }
  at->whole = true;
  return {};
}

}  // namespace

std::vector<std::string> partsOfPath(std::string_view path) {
  std::vector<std::string> parts;
  while (!path.empty()) {
    const std::string_view part = path.substr(0, path.find('/'));
    path.remove_prefix(std::min(part.size() + 1, path.size()));
    if (!part.empty() && part != ".") parts.emplace_back(part);
  }
  return parts;
}

class Contents::Reading {
 public:
  Reading(const Volume& volume, const std::atomic<bool>* cancelled)
      : volume_(volume), cancelled_(cancelled) {}

  base::Result<Contents> run(const Wanted& root) {
    // The volume's own count may be wrong.
    constexpr std::uint64_t kMostAhead = 1 << 16;
    const VolumeFacts& facts = volume_.facts();
    contents_.entries_.reserve(std::min(std::uint64_t{1} + facts.files + facts.folders, kMostAhead));
    contents_.entries_.push_back({.item = root.item});
    wanted_.push_back(&root);
    for (Index folder = 0; folder < contents_.entries_.size(); ++folder) {
      if (contents_[folder].item.kind != ItemKind::folder) continue;
      if (cancelled_ != nullptr && *cancelled_) return base::Error{"it was interrupted"};
      if (auto added = addChildren(folder); !added) return added.error();
    }
    return std::move(contents_);
  }

 private:
  static constexpr std::uint64_t kMostRepeated = std::uint64_t{1} << 20;

  base::Result<void> addChildren(Index folder) {
    const bool isNew = seen_.insert(contents_[folder].item.id).second;
    if (!isNew && isInItself(folder))
      return base::Error{contents_.path(folder) + ": the folder is inside itself"};
    const auto first = static_cast<Index>(contents_.entries_.size());
    const Wanted* wanted = folder < wanted_.size() ? wanted_[folder] : nullptr;
    auto added = wanted == nullptr || wanted->whole ? addAll(folder) : addWanted(folder, *wanted);
    contents_.entries_[folder].firstChild = first;
    contents_.entries_[folder].children = static_cast<std::uint32_t>(contents_.entries_.size() - first);
    if (isNew || !added) return added;
    repeated_ += contents_.entries_.size() - first;
    if (repeated_ <= kMostRepeated) return {};
    return base::Error{contents_.path(folder) + ": hard links to folders show the same items too many times"};
  }

  bool isInItself(Index folder) const {
    const std::uint32_t id = contents_[folder].item.id;
    for (Index above = folder; above != kRoot;) {
      above = contents_[above].parent;
      if (contents_[above].item.id == id) return true;
    }
    return false;
  }

  base::Result<void> addAll(Index folder) {
    return volume_.list(contents_[folder].item.id,
                        [&](std::string_view name, const Item& item) { return add(folder, name, item); });
  }

  base::Result<void> addWanted(Index folder, const Wanted& wanted) {
    for (const auto& [name, child] : wanted.below) {
      // Only what leads to a part that was asked for has an entry here.
      wanted_.resize(contents_.entries_.size(), nullptr);
      wanted_.push_back(&child);
      if (auto added = add(folder, name, child.item); !added) return added;
    }
    return {};
  }

  base::Result<void> add(Index folder, std::string_view name, const Item& item) {
    if (!canBeAFileName(name))
      return base::Error{contents_.path(folder) + "/" + std::string(name) +
                         ": the image holds a name that no file can have"};
    if (contents_.entries_.size() >= kNone) return base::Error{"the image holds too many items"};
    contents_.entries_.push_back({.item = item,
                                  .parent = folder,
                                  .nameOffset = contents_.names_.size(),
                                  .nameBytes = static_cast<std::uint32_t>(name.size())});
    contents_.names_ += name;
    return {};
  }

  const Volume& volume_;
  const std::atomic<bool>* cancelled_;
  Contents contents_;
  // By entry, as far as it goes: the part of the paths that ends or goes on there.
  std::vector<const Wanted*> wanted_;
  std::unordered_set<std::uint32_t> seen_;
  // Items of folders that were seen before at another place. Links within linked folders multiply them.
  std::uint64_t repeated_ = 0;
};

base::Result<Contents> Contents::read(const Volume& volume, std::span<const std::string> paths,
                                      const std::atomic<bool>* cancelled) {
  const auto item = volume.item(volume.rootID());
  if (!item) return item.error();
  Wanted root{.item = *item, .whole = paths.empty()};
  for (const std::string& path : paths)
    if (auto wanted = want(volume, root, path); !wanted) return wanted.error();
  return Reading(volume, cancelled).run(root);
}

std::string Contents::path(Index entry) const {
  if (entry == kRoot) return {};
  std::vector<Index> way;
  for (; entry != kRoot; entry = entries_[entry].parent) way.push_back(entry);
  std::string text(name(way.back()));
  for (way.pop_back(); !way.empty(); way.pop_back()) {
    text += '/';
    text += name(way.back());
  }
  return text;
}

std::vector<Contents::Index> Contents::childrenReversed(Index folder) const {
  std::vector<Index> children(entries_[folder].children);
  for (Index i = 0; i < entries_[folder].children; ++i)
    children[i] = entries_[folder].firstChild + entries_[folder].children - 1 - i;
  return children;
}

}  // namespace image
