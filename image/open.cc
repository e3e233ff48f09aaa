#include "image/open.h"

#include <algorithm>
#include <array>

#include "base/byte_order.h"
#include "image/block/content.h"
#include "image/os/host.h"
#include "image/os/new_file.h"

namespace image {
namespace {

constexpr std::uint64_t kLeastBytes = 512;

base::Result<std::vector<std::byte>> headOf(const base::RandomAccess& file) {
  std::vector<std::byte> head(std::min<std::uint64_t>(file.size(), crypt::ContainerHeader::kHeadBytes));
  if (!file.read(0, head)) return base::Error{"its beginning cannot be read"};
  return head;
}

// "sprs" at its beginning.
bool isSparse(const base::RandomAccess& file) {
  constexpr std::uint32_t kSignature = 0x73707273;
  std::array<std::byte, 4> signature;
  return file.read(0, signature) && base::loadBigEndian<std::uint32_t>(signature.data()) == kSignature;
}

}  // namespace

base::Result<void> OpenedImage::read(const base::RandomAccess& plain) {
  if (plain.size() < kLeastBytes) return base::Error{"not a disk image: it is too short"};
  const auto hasTrailer = udif::hasTrailer(plain);
  if (!hasTrailer) return hasTrailer.error();
  if (*hasTrailer) {
    auto udif = udif::Image::open(plain);
    if (!udif) return udif.error();
    udif_ = *std::move(udif);
    setReading({});
  } else {
    std::array<std::byte, crypt::ContainerHeader::kVersion1EndBytes> end;
    if (!plain.read(plain.size() - end.size(), end)) return base::Error{"its end cannot be read"};
    if (isSparse(plain)) return base::Error{"a sparse image is not supported"};
    if (crypt::ContainerHeader::isVersion1(end))
      return base::Error{"an encrypted image of version 1 is not supported"};
    if (plain.size() % block::kSectorBytes != 0)
      return base::Error{"not a disk image: it has no trailer, and its length is not a number of sectors"};
    disk_ = std::make_unique<block::FileDisk>(plain);
  }
  auto map = block::PartitionMap::read(*disk_);
  if (!map) return map.error();
  map_ = *std::move(map);
  if (udif_ || !map_.partitions.empty()) return {};
  return base::Error{"not a disk image: it has no trailer, no partition map and no HFS+ volume"};
}

void OpenedImage::setReading(const udif::DiskView::Options& options) {
  if (udif_)
    disk_ = std::make_unique<udif::DiskView>(
        *udif_,
        udif::DiskView::Options{.cacheBytes = options.cacheBytes,
                                .workers = options.workers != 0 ? options.workers : os::processors()});
}

std::optional<block::Extent> OpenedImage::hfsPlusVolume() const {
  for (const block::Partition& partition : map_.partitions)
    if (partition.hfsPlus) return partition.hfsPlus;
  return std::nullopt;
}

base::Result<void> OpenedImage::decrypt(crypt::ContainerKeys keys) {
  auto decrypted = udif::DecryptedFile::open(*file_, *container_, std::move(keys));
  if (!decrypted) return decrypted.error();
  decrypted_ = *std::move(decrypted);
  return read(*decrypted_);
}

base::Result<std::unique_ptr<OpenedImage>> OpenedImage::plain(std::unique_ptr<base::RandomAccess> file) {
  std::unique_ptr<OpenedImage> opened(new OpenedImage);
  opened->file_ = std::move(file);
  if (auto read = opened->read(*opened->file_); !read) return read.error();
  return opened;
}

base::Result<std::unique_ptr<OpenedImage>> OpenedImage::withKeys(std::unique_ptr<base::RandomAccess> file,
                                                                 const crypt::ContainerHeader& header,
                                                                 crypt::ContainerKeys keys) {
  std::unique_ptr<OpenedImage> opened(new OpenedImage);
  opened->file_ = std::move(file);
  const auto head = headOf(*opened->file_);
  if (!head) return head.error();
  auto found = crypt::ContainerHeader::decode(*head);
  if (!found) return found.error();
  if (found->keyEntries != header.keyEntries || found->dataBytes != header.dataBytes ||
      found->dataOffset != header.dataOffset || found->blockBytes != header.blockBytes)
    return base::Error{"the container's header is not what was written"};
  opened->container_ = *std::move(found);
  if (auto read = opened->decrypt(std::move(keys)); !read) return read.error();
  return opened;
}

base::Result<std::unique_ptr<OpenedImage>> OpenedImage::open(const std::string& path,
                                                             const base::Secret* password) {
  auto file = os::openFile(path);
  if (!file) return file.error();
  const auto head = headOf(**file);
  if (!head) return head.error();
  if (!crypt::ContainerHeader::isContainer(*head)) return plain(*std::move(file));
  std::unique_ptr<OpenedImage> opened(new OpenedImage);
  opened->file_ = *std::move(file);
  auto container = crypt::ContainerHeader::decode(*head);
  if (!container) return container.error();
  opened->container_ = *std::move(container);
  auto keys = password == nullptr ? std::nullopt : opened->container_->unwrap(*password);
  if (!keys) return base::Error{kAuthenticationError};
  if (auto read = opened->decrypt(*std::move(keys)); !read) return read.error();
  return opened;
}

}  // namespace image
