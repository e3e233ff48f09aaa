#include "image/udif/writer.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "base/mutex.h"
#include "base/xml_property_list.h"
#include "image/block/zeros.h"
#include "image/codec/bzip2_compressor.h"
#include "image/codec/checksum.h"
#include "image/udif/aligned_appender.h"
#include "image/udif/format.h"
#include "image/udif/read_back.h"

namespace image::udif {
namespace {

constexpr std::uint64_t kChunkSectors = 2048;
constexpr std::size_t kChunkBytes = kChunkSectors * block::kSectorBytes;
// What the format's own tool says for zlib chunks of that size; uncompressed images say 0.
constexpr std::uint32_t kBuffersNeeded = 2056;
// A chunk that shrinks by less than this part is stored as it is: reading it back is then free.
constexpr std::size_t kLeastGain = 64;

std::unique_ptr<codec::Compressor> makeCompressor(const WriteOptions& options) {
  if (options.compression == codec::Compression::bzip2) return std::make_unique<codec::Bzip2Compressor>();
  return std::make_unique<codec::ZlibCompressor>(options.level);
}

RunType compressedType(const WriteOptions& options) {
  return options.compression == codec::Compression::bzip2 ? RunType::bzip2 : RunType::zlib;
}

struct Chunk {
  std::size_t region = 0;
  // From the region's first sector on.
  std::uint64_t firstSector = 0;
  std::uint64_t sectorCount = 0;
};

struct StoredChunk {  // NOLINT(clang-analyzer-core.uninitialized.Assign): its type has a value
  Chunk chunk;
  RunType type = RunType::zeros;
  codec::CRC32 plain;
  codec::CRC32 stored{};
  // Null for zeros.
  std::unique_ptr<Piece> piece{};
};

// The disk's chunks in order: 2048 sectors each, counted from the start of their region.
class ChunkList {
 public:
  explicit ChunkList(const std::vector<block::Region>& regions) : regions_(regions) {
    for (const auto& region : regions) {
      starts_.push_back(count_);
      count_ += (region.sectorCount + kChunkSectors - 1) / kChunkSectors;
    }
  }
  std::uint64_t count() const { return count_; }
  Chunk operator[](std::uint64_t index) const {
    const auto region =
        static_cast<std::size_t>(std::ranges::upper_bound(starts_, index) - starts_.begin()) - 1;
    const std::uint64_t first = (index - starts_[region]) * kChunkSectors;
    return {region, first, std::min(kChunkSectors, regions_[region].sectorCount - first)};
  }
  std::uint64_t diskSector(const Chunk& chunk) const {
    return regions_[chunk.region].firstSector + chunk.firstSector;
  }

 private:
  const std::vector<block::Region>& regions_;
  std::vector<std::uint64_t> starts_;
  std::uint64_t count_ = 0;
};

std::vector<BlockTable> emptyTables(const std::vector<block::Region>& regions, bool compresses) {
  std::vector<BlockTable> tables;
  for (const auto& region : regions)
    tables.push_back({.name = region.name,
                      .descriptor = static_cast<std::uint32_t>(tables.size()) - 1,
                      .firstSector = region.firstSector,
                      .sectorCount = region.sectorCount,
                      .buffersNeeded = compresses ? kBuffersNeeded : 0,
                      .checksum = 0});
  return tables;
}

// Where the workers' chunks come together again in the order of the disk.
class Assembly {
 public:
  Assembly(const ChunkList& chunks, std::vector<BlockTable> tables, block::Output& output,
           const WriteOptions& options)
      : chunks_(chunks),
        output_(output),
        options_(options),
        tables_(std::move(tables)),
        tableSums_(tables_.size()) {
    const std::size_t window = 4 * std::size_t{options.workers};
    waiting_.resize(window);
    for (std::size_t i = 0; i < window; ++i) spare_.push_back(std::make_unique<Piece>(kChunkBytes));
    if (auto file = options.readBack == nullptr ? nullptr : output.readBack())
      readBack_.emplace(std::move(file),
                        ReadBack::Options{.threads = options.workers,
                                          .sums = *options.readBack,
                                          .failed = [this](const base::Error& error) {
                                            fail({"verifying " + options_.name + ": " + error.message});
                                          }});
  }

  struct Claim {
    std::uint64_t index = 0;
    std::unique_ptr<Piece> piece;
  };
  // The next chunk to make, with memory for it. Waits while too many are under way; nullopt when there is
  // nothing more to do.
  std::optional<Claim> claim() {
    base::MutexLock lock(mutex_);
    while (!ended() && nextClaim_ < chunks_.count() && !hasRoom()) changed_.wait(mutex_);
    if (ended() || nextClaim_ == chunks_.count()) return std::nullopt;
    Claim claim{nextClaim_++, std::move(spare_.back())};
    spare_.pop_back();
    return claim;
  }

  // Hands in chunk `index` and the memory that it did not need, and carries out the writes that become due.
  void submit(std::uint64_t index, StoredChunk made, std::unique_ptr<Piece> unused) {
    std::vector<Due> due;
    {
      base::MutexLock lock(mutex_);
      waiting_[index % waiting_.size()] = std::move(made);
      if (unused) spare_.push_back(std::move(unused));
      while (auto& next = waiting_[nextPlaced_ % waiting_.size()]) {
        place(*std::exchange(next, std::nullopt), due);
        ++nextPlaced_;
      }
    }
    changed_.notify_all();
    for (Due& write : due) carryOut(write);
  }

  void fail(base::Error error) {
    {
      base::MutexLock lock(mutex_);
      if (!failure_) failure_ = std::move(error);
    }
    changed_.notify_all();
  }

  // After all workers have ended: property list and trailer.
  base::Result<std::uint64_t> finish(std::uint64_t sectorCount) {
    auto length = writeEnd(sectorCount);
    if (!length || !readBack_) return length;
    readBack_->finish();
    base::MutexLock lock(mutex_);
    return failure_ ? base::Result<std::uint64_t>(*failure_) : length;
  }

 private:
  struct Due {
    AlignedAppender::Write write;
    std::unique_ptr<Piece> piece;
  };

  base::Result<std::uint64_t> writeEnd(std::uint64_t sectorCount) {
    base::MutexLock lock(mutex_);
    if (cancelled()) return base::Error{"it was interrupted"};
    if (failure_) return *failure_;
    for (std::size_t i = 0; i < tables_.size(); ++i) tables_[i].checksum = tableSums_[i].value();
    const std::uint64_t dataLength = appender_.length();
    const auto list = base::writeXMLPropertyList(encodeResources(tables_, dataLength));
    const auto trailer = encodeTrailer({.dataForkLength = dataLength,
                                        .propertyListOffset = dataLength,
                                        .propertyListLength = list.size(),
                                        .segmentID = options_.segmentID,
                                        .dataChecksum = dataSum_.value(),
                                        .masterChecksum = masterChecksum(tables_),
                                        .sectorCount = sectorCount});
    if (auto written = append(std::as_bytes(std::span(list))); !written) return written.error();
    if (auto written = append(trailer); !written) return written.error();
    if (auto written = write(appender_.finish()); !written) return written.error();
    return appender_.length();
  }

  base::Result<void> write(const AlignedAppender::Write& due) {
    if (due.bytes.empty()) return {};
    auto written = output_.write(due.offset, due.bytes);
    if (written && readBack_) readBack_->written(due.offset, due.bytes.size());
    return written;
  }

  bool cancelled() const { return options_.cancelled != nullptr && *options_.cancelled; }
  bool ended() const REQUIRES(mutex_) { return failure_.has_value() || cancelled(); }

  bool hasRoom() const REQUIRES(mutex_) {
    return !spare_.empty() && nextClaim_ - nextPlaced_ < waiting_.size();
  }

  void place(StoredChunk made, std::vector<Due>& due) REQUIRES(mutex_) {
    auto& runs = tables_[made.chunk.region].runs;
    tableSums_[made.chunk.region].append(made.plain);
    if (made.type == RunType::zeros && !runs.empty() && runs.back().type == RunType::zeros) {
      runs.back().sectorCount += made.chunk.sectorCount;
    } else {
      runs.push_back({made.type, made.chunk.firstSector, made.chunk.sectorCount, appender_.length(),
                      made.stored.count()});
    }
    dataSum_.append(made.stored);
    if (made.piece) {
      if (readBack_)
        readBack_->expect(runs.back(), {made.plain, made.stored}, tables_[made.chunk.region].name);
      const auto write = appender_.place(*made.piece);
      due.push_back({write, std::move(made.piece)});
    }
    if (options_.progress != nullptr) {
      options_.progress->sectorsDone += made.chunk.sectorCount;
      options_.progress->bytesStored = appender_.length();
    }
  }

  void carryOut(Due& due) {
    if (auto written = write(due.write); !written) fail(written.error());
    {
      base::MutexLock lock(mutex_);
      spare_.push_back(std::move(due.piece));
    }
    changed_.notify_all();
  }

  base::Result<void> append(std::span<const std::byte> bytes) REQUIRES(mutex_) {
    Piece piece(bytes.size());
    std::ranges::copy(bytes, piece.space().begin());
    piece.setSize(bytes.size());
    return write(appender_.place(piece));
  }

  const ChunkList& chunks_;
  block::Output& output_;
  const WriteOptions& options_;

  base::Mutex mutex_;
  std::condition_variable_any changed_;
  std::vector<std::unique_ptr<Piece>> spare_ GUARDED_BY(mutex_);
  std::vector<std::optional<StoredChunk>> waiting_ GUARDED_BY(mutex_);
  std::uint64_t nextClaim_ GUARDED_BY(mutex_) = 0;
  std::uint64_t nextPlaced_ GUARDED_BY(mutex_) = 0;
  std::optional<base::Error> failure_ GUARDED_BY(mutex_);
  AlignedAppender appender_ GUARDED_BY(mutex_);
  std::vector<BlockTable> tables_ GUARDED_BY(mutex_);
  std::vector<codec::CRC32> tableSums_ GUARDED_BY(mutex_);
  codec::CRC32 dataSum_ GUARDED_BY(mutex_);
  // Ends before what its threads report to.
  std::optional<ReadBack> readBack_;
};

// Reads chunks, sums them and makes them smaller. One thread at a time.
class ChunkMaker {
 public:
  ChunkMaker(const block::Content& disk, const ChunkList& chunks, const WriteOptions& options)
      : chunks_(chunks),
        reader_(disk.openReader()),
        compressor_(makeCompressor(options)),
        compresses_(options.compression.has_value()),
        compressedType_(compressedType(options)) {}

  // Takes `memory` unless the chunk is all zeros.
  base::Result<StoredChunk> make(std::uint64_t index, std::unique_ptr<Piece>& memory) {
    const Chunk chunk = chunks_[index];
    const auto bytes = plain_->space().first(chunk.sectorCount * block::kSectorBytes);
    auto filled = reader_->read(chunks_.diskSector(chunk) * block::kSectorBytes, bytes);
    if (!filled) return filled.error();
    if (*filled == block::Filled::zeros || block::allZeros(bytes))
      return StoredChunk{.chunk = chunk, .plain = codec::CRC32::ofZeros(bytes.size())};
    return store(chunk, std::move(memory));
  }

 private:
  // Takes either `target` with the compressed bytes, or the plain ones, whose memory `target` then replaces.
  StoredChunk store(const Chunk& chunk, std::unique_ptr<Piece> target) {
    const auto bytes = plain_->space().first(chunk.sectorCount * block::kSectorBytes);
    const auto sum = codec::CRC32::of(bytes);
    if (compresses_ && codec::looksCompressible(bytes)) {
      const auto size =
          compressor_->compress(bytes, target->space().first(bytes.size() - bytes.size() / kLeastGain));
      if (size != 0) {
        target->setSize(size);
        const auto stored = codec::CRC32::of(target->content());
        return {chunk, compressedType_, sum, stored, std::move(target)};
      }
    }
    plain_->setSize(bytes.size());
    std::swap(plain_, target);
    return {chunk, RunType::raw, sum, sum, std::move(target)};
  }

  const ChunkList& chunks_;
  std::unique_ptr<block::ContentReader> reader_;
  std::unique_ptr<codec::Compressor> compressor_;
  bool compresses_;
  RunType compressedType_;
  std::unique_ptr<Piece> plain_ = std::make_unique<Piece>(kChunkBytes);
};

void work(ChunkMaker maker, Assembly& assembly) {
  while (auto claim = assembly.claim()) {
    auto made = maker.make(claim->index, claim->piece);
    if (!made) return assembly.fail(made.error());
    assembly.submit(claim->index, *std::move(made), std::move(claim->piece));
  }
}

// Every n-th chunk, made to see how long it becomes, in any number of threads.
class Sampling {
 public:
  Sampling(const ChunkList& chunks, const WriteOptions& options)
      : chunks_(chunks), options_(options), lengths_(std::min(kMostSamples, chunks.count())) {}

  void work(ChunkMaker maker) {
    auto memory = std::make_unique<Piece>(kChunkBytes);
    for (std::size_t at = next_++; at < lengths_.size(); at = next_++) {
      if (options_.cancelled != nullptr && *options_.cancelled) return fail({"it was interrupted"});
      auto made = maker.make((at * chunks_.count() + chunks_.count() / 2) / lengths_.size(), memory);
      if (!made) return fail(made.error());
      lengths_[at] = static_cast<double>(made->stored.count());
      if (made->piece) memory = std::move(made->piece);
    }
  }

  // After all threads have ended.
  base::Result<LengthEstimate> result() {
    base::MutexLock lock(mutex_);
    if (failure_) return *failure_;
    const auto samples = static_cast<double>(lengths_.size());
    const auto all = static_cast<double>(chunks_.count());
    double sum = 0;
    double squares = 0;
    for (const double length : lengths_) {
      sum += length;
      squares += length * length;
    }
    const double mean = sum / samples;
    const double variance = std::max(0.0, squares / samples - mean * mean);
    // Three times the standard error of the mean; where every chunk is one there is nothing left to chance.
    const double doubt = samples == all ? 0 : 3 * std::sqrt(variance / samples);
    return LengthEstimate{.likely = static_cast<std::uint64_t>(mean * all),
                          .least = static_cast<std::uint64_t>(std::max(0.0, mean - doubt) * all)};
  }

 private:
  static constexpr std::uint64_t kMostSamples = 64;

  void fail(base::Error error) {
    base::MutexLock lock(mutex_);
    if (!failure_) failure_ = std::move(error);
    next_ = lengths_.size();
  }

  const ChunkList& chunks_;
  const WriteOptions& options_;
  std::vector<double> lengths_;
  std::atomic<std::size_t> next_ = 0;
  base::Mutex mutex_;
  std::optional<base::Error> failure_ GUARDED_BY(mutex_);
};

}  // namespace

base::Result<std::uint64_t> writeImage(const block::Content& disk, const std::vector<block::Region>& regions,
                                       block::Output& output, const WriteOptions& options) {
  const ChunkList chunks(regions);
  const std::uint64_t sectors = disk.size() / block::kSectorBytes;
  if (options.progress != nullptr) {
    options.progress->sectorsDone = 0;
    options.progress->sectorsTotal = sectors;
  }
  Assembly assembly(chunks, emptyTables(regions, options.compression.has_value()), output, options);
  {
    std::vector<std::jthread> threads;
    for (unsigned i = 0; i < options.workers; ++i)
      threads.emplace_back([&] { work(ChunkMaker(disk, chunks, options), assembly); });
  }
  return assembly.finish(sectors);
}

base::Result<LengthEstimate> estimateLength(const block::Content& disk,
                                            const std::vector<block::Region>& regions,
                                            const WriteOptions& options) {
  const ChunkList chunks(regions);
  Sampling sampling(chunks, options);
  {
    std::vector<std::jthread> threads;
    for (unsigned i = 0; i < options.workers; ++i)
      threads.emplace_back([&] { sampling.work(ChunkMaker(disk, chunks, options)); });
  }
  return sampling.result();
}

}  // namespace image::udif
