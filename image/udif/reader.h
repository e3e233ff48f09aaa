#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/mutex.h"
#include "base/random_access.h"
#include "base/result.h"
#include "image/crypt/container.h"
#include "image/udif/format.h"
#include "image/udif/progress.h"
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

// Whether a file has the trailer of a UDIF image, at its end or, as some makers put it, at its beginning.
base::Result<bool> hasTrailer(const base::RandomAccess& file);

// A UDIF image that is open for reading. Any number of threads may read.
class Image {
 public:
  // The (plain) file outlives the image. Takes what any maker stores: chunks in any order and with gaps,
  // tables that overlap or leave sectors out, no checksums, a property list in any form, a resource fork.
  static base::Result<Image> open(const base::RandomAccess& file);

  const Trailer& trailer() const { return trailer_; }
  const std::vector<BlockTable>& tables() const { return tables_; }
  // What the trailer says, or up to where the tables reach if that is more.
  std::uint64_t diskSectors() const { return diskSectors_; }

  // The stored bytes of a run, as many as it has.
  base::Result<void> readStored(const BlockTable& table, const Run& run, std::span<std::byte> into) const;
  // Of a raw run, what it has from `offset` on.
  base::Result<void> readRaw(const BlockTable& table, const Run& run, std::uint64_t offset,
                             std::span<std::byte> into) const;
  const base::RandomAccess& file() const { return *file_; }
  // Where a run's stored bytes stand in the file.
  std::uint64_t fileOffset(const BlockTable& table, const Run& run) const {
    return trailer_.dataForkOffset + table.dataOffset + run.offset;
  }

 private:
  explicit Image(const base::RandomAccess& file) : file_(&file) {}

  base::Result<void> readTrailer();
  base::Result<std::vector<BlockTable>> readTables() const;
  base::Result<std::vector<std::byte>> readBytes(std::uint64_t offset, std::uint64_t length,
                                                 std::string_view what) const;
  base::Result<void> checkTable(const BlockTable& table) const;

  const base::RandomAccess* file_;
  Trailer trailer_;
  std::vector<BlockTable> tables_;
  std::uint64_t diskSectors_ = 0;
};

struct VerifyOptions {
  unsigned workers = 1;
  const std::atomic<bool>* cancelled = nullptr;
  // Of runs that have been read from disk already and are not read again; may be null.
  const RunSums* known = nullptr;
  Progress* progress = nullptr;
};

// Reads every stored byte of the image and compares all checksums that it has with what is there.
base::Result<void> verifyChecksums(const Image& image, const VerifyOptions& options);

}  // namespace image::udif
