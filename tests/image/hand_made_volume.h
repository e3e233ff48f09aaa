#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "image/hfs/volume_view.h"

namespace image {

// An HFS+ volume laid out field by field, for what this system's own writer never does.
class HandMadeVolume {
 public:
  static constexpr std::uint32_t kBlockBytes = 4096;
  static constexpr std::uint32_t kRoot = 2;
  // 2001-09-09 01:46:40 UTC, as volumes count and as others do.
  static constexpr std::uint32_t kDate = 3'082'844'800;
  static constexpr std::int64_t kDateSince1970 = 1'000'000'000;

  struct Fork {
    std::uint64_t size = 0;
    std::vector<hfs::Extent> extents{};
  };
  struct Record {
    std::uint32_t parent = kRoot;
    std::u16string name{};
    std::uint16_t flags = 0;
    std::uint32_t created = kDate;
    std::uint32_t modified = kDate;
    std::uint32_t accessed = kDate;
    std::uint8_t ownerFlags = 0;
    std::uint16_t mode = 0100644;
    std::uint32_t special = 0;
    // Type and creator of a file first.
    std::string finderInfo{};
    Fork data{};
    Fork resources{};
  };

  explicit HandMadeVolume(std::u16string_view name = u"hand made");

  // What the header says; HFSX where the compare type is not 0.
  std::uint8_t keyCompareType = 0;
  std::uint32_t attributes = 0x100;
  std::uint32_t lastMountedVersion = 0x31302E30;
  std::uint32_t journalInfoBlock = 0;
  // Extents of the catalog file.
  std::uint32_t catalogExtents = 1;
  // Bytes of the attributes file behind its last node.
  std::uint32_t attributesFileTail = 0;

  // In as many extents as told, with free blocks between them.
  Fork store(std::string_view bytes, std::uint32_t extents = 1);
  // The new item's number.
  std::uint32_t addFolder(const Record& record);
  std::uint32_t addFile(const Record& record);
  void addAttribute(std::uint32_t item, std::u16string_view name, std::string_view value);
  // In blocks of its own, eight extents to a record.
  void addAttribute(std::uint32_t item, std::u16string_view name, const Fork& value);
  std::uint32_t nextID() const { return nextID_; }

  std::vector<std::byte> make();

 private:
  using Bytes = std::vector<std::byte>;
  struct KeyLess {
    hfs::KeyOrder order;
    bool operator()(const Bytes& a, const Bytes& b) const { return order(a, b) < 0; }
  };
  using Records = std::map<Bytes, Bytes, KeyLess>;

  std::uint32_t add(const Record& record, bool isFolder);
  Fork storeTree(const Records& records, std::uint16_t nodeBytes, std::uint16_t maxKeyLength,
                 std::uint32_t extents, std::uint32_t tail = 0);
  Bytes header(const Fork& overflow, const Fork& catalog, const Fork& attributesFile) const;
  // What of a fork goes into its record; the rest goes into the overflow file.
  void putFork(std::uint32_t file, std::uint8_t kind, const Fork& fork, Bytes& into);

  std::u16string name_;
  Bytes blocks_;
  std::uint32_t nextID_ = 16;
  std::uint32_t files_ = 0;
  std::uint32_t folders_ = 0;
  struct Entry {
    std::uint32_t parent;
    std::u16string name;
    Bytes data;
  };
  std::vector<Entry> catalog_;
  Records attributeRecords_{KeyLess{hfs::attributesOrder()}};
  Records overflowRecords_{KeyLess{hfs::extentsOrder()}};
};

}  // namespace image
