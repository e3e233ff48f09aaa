#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/mutex.h"
#include "base/random_access.h"
#include "base/result.h"
#include "image/codec/zlib_codec.h"
#include "image/crypt/container.h"
#include "image/udif/format.h"
#include "image/udif/run_sums.h"

namespace image::udif {

// The plain bytes of an encrypted container. Any number of threads may read.
class DecryptedFile : public base::RandomAccess {
 public:
  // The file outlives this. Refuses a header that does not fit the file.
  static base::Result<std::unique_ptr<DecryptedFile>> open(const base::RandomAccess& file,
                                                           const crypt::ContainerHeader& header,
                                                           crypt::ContainerKeys keys);
  // A new container of any length that is still being written.
  DecryptedFile(const base::RandomAccess& file, crypt::ContainerKeys keys)
      : DecryptedFile(file, {.dataBytes = kMostBytes}, std::move(keys)) {}

  std::uint64_t size() const override { return size_; }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override;

 private:
  static constexpr std::uint64_t kMostBytes = std::uint64_t{crypt::ContainerHeader::kBlockBytes} << 32;

  DecryptedFile(const base::RandomAccess& file, const crypt::ContainerHeader& header,
                crypt::ContainerKeys keys)
      : file_(file),
        keys_(std::move(keys)),
        blockBytes_(header.blockBytes),
        dataOffset_(header.dataOffset),
        size_(header.dataBytes) {}

  const base::RandomAccess& file_;
  crypt::ContainerKeys keys_;
  std::uint32_t blockBytes_;
  std::uint64_t dataOffset_;
  std::uint64_t size_;
};

// A UDIF image that is open for reading.
class Image {
 public:
  // The (plain) file outlives the image.
  static base::Result<Image> open(const base::RandomAccess& file);

  const Trailer& trailer() const { return trailer_; }
  const std::vector<BlockTable>& tables() const { return tables_; }

  // The stored bytes of a run.
  base::Result<void> readStored(const BlockTable& table, const Run& run, std::span<std::byte> into) const;
  const base::RandomAccess& file() const { return *file_; }
  // Where a run's stored bytes stand in the file.
  std::uint64_t fileOffset(const BlockTable& table, const Run& run) const {
    return trailer_.dataForkOffset + table.dataOffset + run.offset;
  }

 private:
  explicit Image(const base::RandomAccess& file) : file_(&file) {}

  const base::RandomAccess* file_;
  Trailer trailer_;
  std::vector<BlockTable> tables_;
};

// The bytes of one region of an image's disk, made from its runs; the last chunk that was made is kept. One
// thread at a time.
class RegionView : public base::RandomAccess {
 public:
  // Image and table outlive the view.
  RegionView(const Image& image, const BlockTable& table);

  std::uint64_t size() const override;
  bool read(std::uint64_t offset, std::span<std::byte> into) const override;

 private:
  bool readPart(const Run& run, std::uint64_t offset, std::span<std::byte> into) const;

  const Image& image_;
  const BlockTable& table_;
  // By first sector.
  std::vector<Run> runs_;
  mutable codec::ZlibDecompressor decompressor_;
  mutable std::vector<std::byte> chunk_;
  mutable std::uint64_t chunkSector_ = ~0ull;
};

struct VerifyOptions {
  unsigned workers = 1;
  const std::atomic<bool>* cancelled = nullptr;
  // Of runs that have been read from disk already and are not read again; may be null.
  const RunSums* known = nullptr;
};

// Reads every stored byte of the image and compares all checksums that it has with what is there.
base::Result<void> verifyChecksums(const Image& image, const VerifyOptions& options);

}  // namespace image::udif
