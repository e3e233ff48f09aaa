#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/result.h"
#include "image/hfs/volume_reader.h"

namespace image::hfs {

// The name that an item has for a POSIX system when only its stored one counts: composed, ':' and '/'
// exchanged. nullopt when that name would not lead back to the stored one, or is none that a file can have.
std::optional<std::string> plainName(std::u16string_view storedName);

// Those names of one folder that do not follow from the stored names: the exact ones that were kept, and
// those of other makers' items that could not be told apart, or could not be asked for, without being
// altered. No name is that of another item of the folder.
class FolderNames {
 public:
  static base::Result<std::shared_ptr<const FolderNames>> read(const VolumeReader& volume,
                                                               std::uint32_t folder);

  // nullopt where the plain name is the one.
  std::optional<std::string_view> shown(std::u16string_view stored) const;
  // nullopt where the name is none of these.
  std::optional<std::u16string_view> stored(std::string_view shown) const;
  // Of memory.
  std::uint64_t bytes() const { return bytes_; }

 private:
  base::Result<void> add(const VolumeReader& volume, const CatalogRecord& record,
                         const std::optional<std::string>& exact);

  std::unordered_map<std::u16string, std::string> byStored_;
  std::unordered_map<std::string, std::u16string> byShown_;
  std::uint64_t bytes_ = sizeof(FolderNames);
};

}  // namespace image::hfs
