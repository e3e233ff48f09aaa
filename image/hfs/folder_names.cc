#include "image/hfs/folder_names.h"

#include <algorithm>
#include <vector>

#include "base/unicode.h"

namespace image::hfs {
namespace {

bool isFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

// Characters that a file's name cannot have give way to ':' and to the picture of U+0000.
std::string readable(std::string_view name) {
  std::string made;
  for (const char c : name) {
    if (c == '\0')
      base::appendUTF8(made, 0x2400);
    else
      made += c == '/' ? ':' : c;
  }
  return made;
}

// Whether another item of the folder has that name as its plain one.
base::Result<bool> isTaken(const VolumeReader& volume, std::uint32_t folder, const std::string& name) {
  const auto stored = storedName(name);
  if (!stored || plainName(*stored) != name) return false;
  const auto found = volume.catalog().find(folder, *stored);
  if (!found) return found.error();
  if (!*found) return false;
  const auto original = volume.originalOf(**found);
  if (!original) return original.error();
  return !original->name;
}

}  // namespace

std::optional<std::string> plainName(std::u16string_view stored) {
  std::string name = composedFileName(stored);
  const bool isASCII = std::ranges::all_of(stored, [](char16_t unit) { return unit < 0x80; });
  if (isASCII && stored.find(u':') == stored.npos && isFileName(name)) return name;
  if (!isFileName(name) || storedName(name) != stored) return std::nullopt;
  return name;
}

base::Result<std::shared_ptr<const FolderNames>> FolderNames::read(const VolumeReader& volume,
                                                                   std::uint32_t folder) {
  auto names = std::make_shared<FolderNames>();
  const auto visit = [&](const CatalogRecord& record) -> base::Result<bool> {
    if (volume.isHidden(record)) return true;
    const auto original = volume.originalOf(record);
    if (!original) return original.error();
    if (!original->name && plainName(record.name)) return true;
    if (auto added = names->add(volume, record, original->name); !added) return added.error();
    return true;
  };
  if (auto listed = volume.catalog().list(folder, visit); !listed) return listed.error();
  return std::shared_ptr<const FolderNames>(std::move(names));
}

base::Result<void> FolderNames::add(const VolumeReader& volume, const CatalogRecord& record,
                                    const std::optional<std::string>& exact) {
  const std::string written = readable(base::utf8FromUTF16(record.name));
  std::vector<std::string> candidates{readable(composedFileName(record.name)), written};
  if (exact) candidates.insert(candidates.begin(), *exact);
  for (std::uint64_t number = 0;; ++number) {
    if (number == candidates.size()) candidates.push_back(written + "~" + std::to_string(record.id + number));
    std::string& name = candidates[number];
    if (!isFileName(name) || byShown_.contains(name)) continue;
    const auto taken = isTaken(volume, record.parent, name);
    if (!taken) return taken.error();
    if (*taken) continue;
    constexpr std::uint64_t kEntryBytes = 2 * (sizeof(std::string) + sizeof(std::u16string) + 32);
    bytes_ += kEntryBytes + 2 * (name.size() + 2 * record.name.size());
    byStored_.emplace(record.name, name);
    byShown_.emplace(std::move(name), record.name);
    return {};
  }
}

std::optional<std::string_view> FolderNames::shown(std::u16string_view stored) const {
  if (byStored_.empty()) return std::nullopt;
  const auto known = byStored_.find(std::u16string(stored));
  if (known == byStored_.end()) return std::nullopt;
  return known->second;
}

std::optional<std::u16string_view> FolderNames::stored(std::string_view shown) const {
  const auto known = byShown_.find(std::string(shown));
  if (known == byShown_.end()) return std::nullopt;
  return known->second;
}

}  // namespace image::hfs
