#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/result.h"
#include "image/hfs/btree_reader.h"
#include "image/hfs/volume_view.h"

namespace image::hfs {

// A folder or file record of a catalog, as it stands there.
struct CatalogRecord {
  // Among the owner's flags: the file system has compressed the file's data.
  static constexpr std::uint8_t kCompressed = 0x20;

  std::uint32_t parent = 0;
  std::u16string name{};
  bool isFolder = false;
  std::uint16_t flags = 0;
  std::uint32_t id = 0;
  // Seconds since 1904, 0 where never set.
  std::uint32_t created = 0;
  std::uint32_t modified = 0;
  std::uint32_t changed = 0;
  std::uint32_t accessed = 0;
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  std::uint8_t ownerFlags = 0;
  std::uint16_t mode = 0;
  // A device's number, a link's target or how many links there are.
  std::uint32_t special = 0;
  // Of a file: its type and creator first.
  std::array<std::byte, 32> finderInfo{};
  // Of a file.
  ForkRecord data{};
  ForkRecord resources{};

  bool has(std::uint16_t flag) const { return (flags & flag) != 0; }
  // Type and creator of a file.
  std::uint64_t finderType() const { return base::loadBigEndian<std::uint64_t>(finderInfo.data()); }
};

// Looks folders and files up in a catalog file. Any number of threads may call.
class CatalogReader {
 public:
  static constexpr std::uint32_t kRootID = 2;

  // False ends the listing.
  using Visitor = std::function<base::Result<bool>(const CatalogRecord&)>;

  CatalogReader(BTreeView view, NameOrder order, std::uint64_t cacheBytes)
      : tree_(std::move(view), catalogOrder(order), cacheBytes), order_(order) {}

  NameOrder order() const { return order_; }

  // The item of exactly that stored name, whatever the volume's order takes for the same.
  base::Result<std::optional<CatalogRecord>> find(std::uint32_t folder, std::u16string_view name) const;
  // By its own number. An Error where nothing has it.
  base::Result<CatalogRecord> byID(std::uint32_t id) const;
  // The items of a folder in the order of their names. An Error where there is no such folder.
  base::Result<void> list(std::uint32_t folder, const Visitor& visit) const;

 private:
  BTreeReader tree_;
  NameOrder order_;
};

}  // namespace image::hfs
