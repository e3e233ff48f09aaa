#include "image/udif/reader.h"

#include <algorithm>
#include <string>

#include "base/binary_property_list.h"
#include "image/block/disk.h"
#include "image/udif/chunk_decoder.h"
#include "image/udif/resource_fork.h"

namespace image::udif {
namespace {

constexpr std::uint64_t kMaxPropertyListBytes = 1ull << 31;

// Of a disk whose bytes can be counted.
constexpr std::uint64_t kMostSectors = std::uint64_t{1} << 54;

using block::liesWithin;

// nullopt where there is none.
base::Result<std::optional<std::uint64_t>> trailerOffset(const base::RandomAccess& file) {
  std::array<std::byte, 4> signature;
  if (file.size() < kTrailerBytes) return std::optional<std::uint64_t>();
  for (const std::uint64_t offset : {file.size() - kTrailerBytes, std::uint64_t{0}}) {
    if (!file.read(offset, signature)) return base::Error{"its trailer cannot be read"};
    if (isTrailer(signature)) return std::optional(offset);
  }
  return std::optional<std::uint64_t>();
}

}  // namespace

base::Result<std::unique_ptr<DecryptedFile>> DecryptedFile::open(const base::RandomAccess& file,
                                                                 const crypt::ContainerHeader& header,
                                                                 crypt::ContainerKeys keys) {
  const std::uint64_t blocks =
      header.dataBytes / header.blockBytes + (header.dataBytes % header.blockBytes != 0 ? 1 : 0);
  if (blocks > 0xFFFFFFFF || !liesWithin(header.dataOffset, blocks * header.blockBytes, file.size()))
    return base::Error{"the encrypted image is cut short"};
  return std::unique_ptr<DecryptedFile>(new DecryptedFile(file, header, std::move(keys)));
}

bool DecryptedFile::read(std::uint64_t offset, std::span<std::byte> into) const {
  if (!liesWithin(offset, into.size(), size_)) return false;
  if (into.empty()) return true;
  const std::uint64_t first = offset / blockBytes_;
  const std::uint64_t end = (offset + into.size() + blockBytes_ - 1) / blockBytes_;
  std::vector<std::byte> blocks((end - first) * blockBytes_);
  if (!file_.read(dataOffset_ + first * blockBytes_, blocks)) return false;
  keys_.decrypt(static_cast<std::uint32_t>(first), blockBytes_, blocks);
  std::ranges::copy(std::span(blocks).subspan(offset - first * blockBytes_, into.size()), into.begin());
  return true;
}

base::Result<bool> hasTrailer(const base::RandomAccess& file) {
  const auto offset = trailerOffset(file);
  if (!offset) return offset.error();
  return offset->has_value();
}

base::Result<Image> Image::open(const base::RandomAccess& file) {
  Image image(file);
  if (auto read = image.readTrailer(); !read) return read.error();
  auto tables = image.readTables();
  if (!tables) return tables.error();
  image.tables_ = *std::move(tables);
  image.diskSectors_ = image.trailer_.sectorCount;
  for (const BlockTable& table : image.tables_) {
    if (auto checked = image.checkTable(table); !checked) return checked.error();
    image.diskSectors_ = std::max(image.diskSectors_, table.firstSector + table.sectorCount);
  }
  return image;
}

base::Result<void> Image::readTrailer() {
  if (file_->size() < kTrailerBytes) return base::Error{"not a disk image: it is too short"};
  const auto offset = trailerOffset(*file_);
  if (!offset) return offset.error();
  std::array<std::byte, kTrailerBytes> bytes;
  if (!file_->read(offset->value_or(file_->size() - kTrailerBytes), bytes))
    return base::Error{"its trailer cannot be read"};
  auto trailer = decodeTrailer(bytes);
  if (!trailer) return trailer.error();
  trailer_ = *trailer;
  if (!liesWithin(trailer_.dataForkOffset, trailer_.dataForkLength, file_->size()) ||
      trailer_.sectorCount > kMostSectors)
    return base::Error{"its trailer names bytes that it does not have"};
  return {};
}

base::Result<std::vector<BlockTable>> Image::readTables() const {
  if (trailer_.propertyListLength == 0 && trailer_.resourceForkLength != 0) {
    const auto fork =
        readBytes(trailer_.resourceForkOffset, trailer_.resourceForkLength, "its resource fork");
    if (!fork) return fork.error();
    const auto list = readResourceFork(*fork);
    if (!list) return list.error();
    return decodeResources(*list);
  }
  auto bytes = readBytes(trailer_.propertyListOffset, trailer_.propertyListLength, "its property list");
  if (!bytes) return bytes.error();
  // Some makers end it as a C string.
  while (!bytes->empty() && bytes->back() == std::byte{0} && bytes->front() == std::byte{'<'})
    bytes->pop_back();
  const auto list = base::parsePropertyList(*bytes);
  if (!list) return base::Error{"its property list is damaged: " + list.error().message};
  return decodeResources(*list);
}

base::Result<std::vector<std::byte>> Image::readBytes(std::uint64_t offset, std::uint64_t length,
                                                      std::string_view what) const {
  if (length == 0 || length > kMaxPropertyListBytes || !liesWithin(offset, length, file_->size()))
    return base::Error{"its trailer names bytes that it does not have"};
  std::vector<std::byte> bytes(length);
  if (!file_->read(offset, bytes)) return base::Error{std::string(what) + " cannot be read"};
  return bytes;
}

base::Result<void> Image::checkTable(const BlockTable& table) const {
  if (!liesWithin(table.firstSector, table.sectorCount, kMostSectors))
    return base::Error{table.name + " lies outside of any disk"};
  for (const Run& run : table.runs) {
    if (!isStored(run.type)) continue;
    // Each is less than the file's size before they are added up, so that the sum cannot wrap around.
    const bool isInside = table.dataOffset <= file_->size() && run.offset <= file_->size() &&
                          liesWithin(fileOffset(table, run), run.length, file_->size());
    if (!isInside) return base::Error{"a chunk of " + table.name + " lies outside the image"};
  }
  return {};
}

base::Result<void> Image::readStored(const BlockTable& table, const Run& run,
                                     std::span<std::byte> into) const {
  if (file_->read(fileOffset(table, run), into)) return {};
  return base::Error{"a chunk of " + table.name + " cannot be read"};
}

base::Result<void> Image::readRaw(const BlockTable& table, const Run& run, std::uint64_t offset,
                                  std::span<std::byte> into) const {
  if (run.length != run.sectorCount * 512) return damagedRun(run, table.name);
  if (file_->read(fileOffset(table, run) + offset, into)) return {};
  return base::Error{"a chunk of " + table.name + " cannot be read"};
}

}  // namespace image::udif
