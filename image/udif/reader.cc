#include "image/udif/reader.h"

#include <algorithm>
#include <string>

#include "base/xml_property_list.h"
#include "image/block/zeros.h"

namespace image::udif {
namespace {

// No image that is meant to be read in pieces has larger compressed runs.
constexpr std::uint64_t kMaxRunSectors = 1 << 17;
constexpr std::uint64_t kMaxPropertyListBytes = 1ull << 31;

bool liesWithin(std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
  return offset <= size && length <= size - offset;
}

bool isStored(RunType type) { return type != RunType::zeros && type != RunType::ignored; }

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

base::Result<Image> Image::open(const base::RandomAccess& file) {
  Image image(file);
  std::array<std::byte, kTrailerBytes> end;
  if (file.size() < kTrailerBytes) return base::Error{"not a disk image: it is too short"};
  if (!file.read(file.size() - kTrailerBytes, end)) return base::Error{"its trailer cannot be read"};
  auto trailer = decodeTrailer(end);
  if (!trailer) return trailer.error();
  image.trailer_ = *trailer;
  if (trailer->propertyListLength == 0 || trailer->propertyListLength > kMaxPropertyListBytes ||
      !liesWithin(trailer->propertyListOffset, trailer->propertyListLength, file.size()) ||
      !liesWithin(trailer->dataForkOffset, trailer->dataForkLength, file.size()))
    return base::Error{"its trailer names bytes that it does not have"};
  std::string text(trailer->propertyListLength, '\0');
  if (!file.read(trailer->propertyListOffset, std::as_writable_bytes(std::span(text))))
    return base::Error{"its property list cannot be read"};
  const auto list = base::parseXMLPropertyList(text);
  if (!list) return base::Error{"its property list is damaged: " + list.error().message};
  auto tables = decodeResources(*list);
  if (!tables) return tables.error();
  image.tables_ = *std::move(tables);
  for (const BlockTable& table : image.tables_) {
    if (!liesWithin(table.firstSector, table.sectorCount, trailer->sectorCount))
      return base::Error{table.name + " lies outside the disk"};
    for (const Run& run : table.runs) {
      const bool isLarge = run.type != RunType::raw && isStored(run.type) && run.sectorCount > kMaxRunSectors;
      const bool inside =
          !isStored(run.type) || (table.dataOffset <= file.size() && run.offset <= file.size() &&
                                  liesWithin(image.fileOffset(table, run), run.length, file.size()));
      if (isLarge || !inside) return base::Error{"a chunk of " + table.name + " lies outside the image"};
    }
  }
  return image;
}

base::Result<void> Image::readStored(const BlockTable& table, const Run& run,
                                     std::span<std::byte> into) const {
  if (!file_->read(fileOffset(table, run), into))
    return base::Error{"a chunk of " + table.name + " cannot be read"};
  return {};
}

RegionView::RegionView(const Image& image, const BlockTable& table)
    : image_(image), table_(table), runs_(table.runs) {
  std::ranges::sort(runs_, {}, &Run::firstSector);
}

std::uint64_t RegionView::size() const { return table_.sectorCount * 512; }

bool RegionView::read(std::uint64_t offset, std::span<std::byte> into) const {
  if (!liesWithin(offset, into.size(), size())) return false;
  while (!into.empty()) {
    const auto after = std::ranges::upper_bound(runs_, offset / 512, {}, &Run::firstSector);
    if (after == runs_.begin()) return false;
    const Run& run = after[-1];
    const std::uint64_t inside = offset - run.firstSector * 512;
    if (inside >= run.sectorCount * 512) return false;
    const auto part = into.first(
        static_cast<std::size_t>(std::min<std::uint64_t>(into.size(), run.sectorCount * 512 - inside)));
    if (!readPart(run, inside, part)) return false;
    offset += part.size();
    into = into.subspan(part.size());
  }
  return true;
}

bool RegionView::readPart(const Run& run, std::uint64_t offset, std::span<std::byte> into) const {
  if (!isStored(run.type)) {
    block::fillZeros(into);
    return true;
  }
  if (run.type == RunType::raw)
    return run.length == run.sectorCount * 512 &&
           image_.file().read(image_.fileOffset(table_, run) + offset, into);
  if (run.type != RunType::zlib) return false;
  if (chunkSector_ != run.firstSector) {
    std::vector<std::byte> stored(run.length);
    chunk_.resize(run.sectorCount * 512);
    chunkSector_ = ~0ull;
    if (!image_.readStored(table_, run, stored) || !decompressor_.decompress(stored, chunk_)) return false;
    chunkSector_ = run.firstSector;
  }
  std::ranges::copy(std::span(chunk_).subspan(offset, into.size()), into.begin());
  return true;
}

}  // namespace image::udif
