#include "image/hfs/compressed_file.h"

#include <algorithm>
#include <array>
#include <string>

#include "image/codec/zlib_codec.h"

namespace image::hfs {
namespace {

constexpr std::uint32_t kPlainInAttribute = 1;
constexpr std::uint32_t kZlibInAttribute = 3;
constexpr std::uint32_t kZlibInResources = 4;
constexpr std::uint64_t kBlockBytes = 1 << 16;
// No stream of deflate is shorter by more.
constexpr std::uint64_t kMostGain = 1032;
constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 47;

std::uint32_t littleEndian(std::span<const std::byte> bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) value = value << 8 | std::to_integer<std::uint32_t>(bytes[at + i]);
  return value;
}

}  // namespace

base::Result<std::optional<Compression>> Compression::of(const VolumeReader& volume,
                                                         const CatalogRecord& record) {
  constexpr std::size_t kHeadBytes = 16;
  constexpr std::size_t kMostStoredBytes = 1 << 16;
  constexpr std::uint32_t kSignature = 0x636D7066;
  if (record.isFolder || (record.ownerFlags & CatalogRecord::kCompressed) == 0)
    return std::optional<Compression>();
  const auto value = volume.attribute(record, kAttributeName);
  if (!value) return value.error();
  if (!*value) return std::optional<Compression>();
  const std::span<const std::byte> bytes(**value);
  const base::Error damaged{"the compression of item " + std::to_string(record.id) + " is damaged"};
  if (bytes.size() < kHeadBytes || bytes.size() > kMostStoredBytes || littleEndian(bytes, 0) != kSignature)
    return damaged;
  Compression compression{.type = littleEndian(bytes, 4),
                          .size = littleEndian(bytes, 8) | std::uint64_t{littleEndian(bytes, 12)} << 32};
  if (compression.size > kMostBytes) return damaged;
  const auto data = bytes.subspan(kHeadBytes);
  compression.data.assign(data.begin(), data.end());
  return std::optional(std::move(compression));
}

base::Error CompressedFile::damaged() const {
  return {"the compressed data of item " + std::to_string(id_) + " is damaged"};
}

bool CompressedFile::isInAttribute() const { return compression_.type != kZlibInResources; }

base::Result<CompressedFile> CompressedFile::open(const VolumeReader& volume, const CatalogRecord& record,
                                                  Compression compression) {
  const auto type = compression.type;
  if (type != kPlainInAttribute && type != kZlibInAttribute && type != kZlibInResources)
    return base::Error{"item " + std::to_string(record.id) + " is compressed in a way (type " +
                       std::to_string(type) + ") that is not known here"};
  auto fork = volume.fork(record.id, ForkKind::resource, record.resources);
  if (!fork) return fork.error();
  CompressedFile file(volume, record.id, std::move(compression), *std::move(fork));
  if (file.isInAttribute()) {
    const std::uint64_t stored = file.compression_.data.size();
    if (file.compression_.size > stored * kMostGain) return file.damaged();
    return file;
  }
  if (auto found = file.findTable(std::min(record.resources.size, file.resources_.bytes())); !found)
    return found.error();
  return file;
}

// A resource fork with one resource: where it begins stands first, big-endian; it has its length, and then,
// little-endian, the number of blocks and where each one is and how long, counted from that number on.
base::Result<void> CompressedFile::findTable(std::uint64_t resourceBytes) {
  std::array<std::byte, 4> field;
  resourceBytes_ = resourceBytes;
  if (resourceBytes < field.size()) return damaged();
  if (auto read = volume_->read(resources_, 0, field); !read) return read;
  tableAt_ = std::uint64_t{base::loadBigEndian<std::uint32_t>(field.data())} + 4;
  if (!block::liesWithin(tableAt_, field.size(), resourceBytes)) return damaged();
  if (auto read = volume_->read(resources_, tableAt_, field); !read) return read;
  const std::uint64_t blocks = littleEndian(field, 0);
  if (blocks != (compression_.size + kBlockBytes - 1) / kBlockBytes ||
      !block::liesWithin(tableAt_, 4 + blocks * 8, resourceBytes))
    return damaged();
  return {};
}

std::uint64_t CompressedFile::blockBytes() const {
  return isInAttribute() ? std::max<std::uint64_t>(compression_.size, 1) : kBlockBytes;
}

// Data that does not shrink is stored behind a byte that no zlib stream begins with.
base::Result<std::vector<std::byte>> CompressedFile::expanded(std::span<const std::byte> stored,
                                                              std::size_t bytes) const {
  if (stored.empty()) return damaged();
  if ((stored.front() & std::byte{0x0F}) == std::byte{0x0F}) {
    if (stored.size() - 1 != bytes) return damaged();
    return std::vector(stored.begin() + 1, stored.end());
  }
  std::vector<std::byte> made(bytes);
  if (!codec::ZlibDecompressor().decompress(stored, made)) return damaged();
  return made;
}

base::Result<std::vector<std::byte>> CompressedFile::block(std::uint64_t number) const {
  const std::uint64_t offset = number * blockBytes();
  if (offset >= compression_.size) return damaged();
  const auto bytes = static_cast<std::size_t>(std::min(blockBytes(), compression_.size - offset));
  if (compression_.type == kPlainInAttribute) {
    if (compression_.data.size() != bytes) return damaged();
    return compression_.data;
  }
  if (compression_.type == kZlibInAttribute) return expanded(compression_.data, bytes);
  std::array<std::byte, 8> entry;
  if (auto read = volume_->read(resources_, tableAt_ + 4 + number * entry.size(), entry); !read)
    return read.error();
  const std::uint64_t at = tableAt_ + littleEndian(entry, 0);
  std::vector<std::byte> stored(std::min<std::uint64_t>(littleEndian(entry, 4), 2 * kBlockBytes));
  if (stored.size() != littleEndian(entry, 4) || !block::liesWithin(at, stored.size(), resourceBytes_))
    return damaged();
  if (auto read = volume_->read(resources_, at, stored); !read) return read.error();
  return expanded(stored, bytes);
}

}  // namespace image::hfs
