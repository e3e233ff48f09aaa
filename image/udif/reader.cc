#include "image/udif/reader.h"

#include <algorithm>
#include <string>

#include "base/xml_property_list.h"
#include "image/block/disk.h"
#include "image/udif/chunk_decoder.h"

namespace image::udif {
namespace {

constexpr std::uint64_t kMaxPropertyListBytes = 1ull << 31;

// Of a disk whose bytes can be counted.
constexpr std::uint64_t kMostSectors = std::uint64_t{1} << 54;

using block::liesWithin;

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
  std::array<std::byte, 4> signature;
  if (file.size() < kTrailerBytes) return false;
  if (!file.read(file.size() - kTrailerBytes, signature)) return base::Error{"its trailer cannot be read"};
  return isTrailer(signature);
}

base::Result<Image> Image::open(const base::RandomAccess& file) {
  Image image(file);
  std::array<std::byte, kTrailerBytes> end;
  if (file.size() < kTrailerBytes) return base::Error{"not a disk image: it is too short"};
  if (!file.read(file.size() - kTrailerBytes, end)) return base::Error{"its trailer cannot be read"};
  auto trailer = decodeTrailer(end);
  if (!trailer) return trailer.error();
  image.trailer_ = *trailer;
  if (trailer->propertyListLength == 0 && trailer->resourceForkLength != 0)
    return base::Error{"an image with its block tables in a resource fork is not supported"};
  if (trailer->propertyListLength == 0 || trailer->propertyListLength > kMaxPropertyListBytes ||
      !liesWithin(trailer->propertyListOffset, trailer->propertyListLength, file.size()) ||
      !liesWithin(trailer->dataForkOffset, trailer->dataForkLength, file.size()) ||
      trailer->sectorCount > kMostSectors)
    return base::Error{"its trailer names bytes that it does not have"};
  std::string text(trailer->propertyListLength, '\0');
  if (!file.read(trailer->propertyListOffset, std::as_writable_bytes(std::span(text))))
    return base::Error{"its property list cannot be read"};
  const auto list = base::parseXMLPropertyList(text);
  if (!list) return base::Error{"its property list is damaged: " + list.error().message};
  auto tables = decodeResources(*list);
  if (!tables) return tables.error();
  image.tables_ = *std::move(tables);
  image.diskSectors_ = trailer->sectorCount;
  for (const BlockTable& table : image.tables_) {
    if (auto checked = image.checkTable(table); !checked) return checked.error();
    image.diskSectors_ = std::max(image.diskSectors_, table.firstSector + table.sectorCount);
  }
  return image;
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
