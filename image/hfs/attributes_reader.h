#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "base/result.h"
#include "image/hfs/btree_reader.h"
#include "image/hfs/volume_view.h"

namespace image::hfs {

// An attribute as its record has it.
struct StoredAttribute {
  std::u16string name{};
  // Of a value in the record.
  std::span<const std::byte> value{};
  // Of a value in blocks of its own.
  bool isFork = false;
  ForkRecord fork{};
};

// Looks attributes up in an attributes file. Any number of threads may call.
class AttributesReader {
 public:
  // What it is given lives until it returns. An Error ends the listing and is returned.
  using Visitor = std::function<base::Result<void>(const StoredAttribute&)>;

  AttributesReader(BTreeView view, std::uint64_t cacheBytes)
      : tree_(std::move(view), attributesOrder(), cacheBytes) {}

  // An item's attributes in the order of their names; those in blocks with all of their extents.
  base::Result<void> list(std::uint32_t file, const Visitor& visit) const;

 private:
  BTreeReader tree_;
};

}  // namespace image::hfs
