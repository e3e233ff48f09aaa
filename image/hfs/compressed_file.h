#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "image/hfs/volume_reader.h"

namespace image::hfs {

// What the attribute com.apple.decmpfs says of a file whose data the file system has compressed: "fpmc", the
// type and the number of bytes, little-endian (32, 32 and 64 bits), then the data where it is short.
struct Compression {
  static constexpr std::u16string_view kAttributeName = u"com.apple.decmpfs";

  std::uint32_t type = 0;
  std::uint64_t size = 0;
  std::vector<std::byte> data{};

  // nullopt where the file's data are not compressed.
  static base::Result<std::optional<Compression>> of(const VolumeReader& volume, const CatalogRecord& record);
};

// The bytes of such a file, block by block: types 1 and 3, which stand in the attribute, as one block, type 4
// (zlib in the resource fork) as blocks of 64 KiB. Other types are refused, by number. Any number of threads
// may call.
class CompressedFile {
 public:
  // The volume outlives the file.
  static base::Result<CompressedFile> open(const VolumeReader& volume, const CatalogRecord& record,
                                           Compression compression);

  std::uint64_t size() const { return compression_.size; }
  // Of every block but the last.
  std::uint64_t blockBytes() const;
  base::Result<std::vector<std::byte>> block(std::uint64_t number) const;
  // Of memory.
  std::uint64_t bytes() const { return sizeof *this + compression_.data.size(); }

 private:
  CompressedFile(const VolumeReader& volume, std::uint32_t id, Compression compression, ForkMap resources)
      : volume_(&volume), id_(id), compression_(std::move(compression)), resources_(std::move(resources)) {}

  bool isInAttribute() const;
  base::Error damaged() const;
  base::Result<void> findTable(std::uint64_t resourceBytes);
  base::Result<std::vector<std::byte>> expanded(std::span<const std::byte> stored, std::size_t bytes) const;

  const VolumeReader* volume_;
  std::uint32_t id_;
  Compression compression_;
  ForkMap resources_;
  std::uint64_t resourceBytes_ = 0;
  // Where in the resource fork the table of blocks begins.
  std::uint64_t tableAt_ = 0;
};

}  // namespace image::hfs
