#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <random>
#include <vector>

#include "base/byte_order.h"
#include "base/xml_property_list.h"
#include "image/codec/checksum.h"
#include "image/codec/zlib_codec.h"
#include "image/udif/aligned_appender.h"
#include "image/udif/format.h"
#include "image/udif/writer.h"

namespace image::udif {
namespace {

using testing::HasSubstr;

class MemoryOutput : public block::Output {
 public:
  base::Result<void> write(std::uint64_t offset, std::span<std::byte> bytes) override {
    const std::lock_guard lock(mutex_);
    if (++writes_ == failAt) return base::Error{"cannot write: no space"};
    EXPECT_EQ(offset % 4096, 0u);
    if (file.size() < offset + bytes.size()) file.resize(offset + bytes.size());
    std::ranges::copy(bytes, file.begin() + static_cast<std::ptrdiff_t>(offset));
    return {};
  }

  std::vector<std::byte> file;
  int failAt = 0;

 private:
  std::mutex mutex_;
  int writes_ = 0;
};

// A disk in memory; reading `damagedAt` fails.
class MemoryDisk : public block::Content {
 public:
  explicit MemoryDisk(std::vector<std::byte> bytes) : bytes_(std::move(bytes)) {}
  std::uint64_t size() const override { return bytes_.size(); }
  std::unique_ptr<block::ContentReader> openReader() const override {
    return std::make_unique<Reader>(*this);
  }
  const std::vector<std::byte>& bytes() const { return bytes_; }
  std::uint64_t damagedAt = ~0ull;

 private:
  class Reader : public block::ContentReader {
   public:
    explicit Reader(const MemoryDisk& disk) : disk_(disk) {}
    base::Result<block::Filled> read(std::uint64_t offset, std::span<std::byte> into) override {
      if (offset <= disk_.damagedAt && disk_.damagedAt < offset + into.size())
        return base::Error{"cannot read /stick/photo: Input/output error"};
      std::ranges::copy(std::span(disk_.bytes_).subspan(offset, into.size()), into.begin());
      return block::Filled::data;
    }

   private:
    const MemoryDisk& disk_;
  };
  std::vector<std::byte> bytes_;
};

constexpr std::size_t kMegabyte = 1 << 20;

// Noise, zeros, text, two megabytes each, and half a megabyte of text.
MemoryDisk makeDisk() {
  std::mt19937 random(7);
  std::vector<std::byte> bytes(6 * kMegabyte + kMegabyte / 2, std::byte{'t'});
  for (std::size_t i = 0; i < 2 * kMegabyte; ++i) bytes[i] = static_cast<std::byte>(random());
  std::fill_n(bytes.begin() + 2 * kMegabyte, 2 * kMegabyte, std::byte{0});
  return MemoryDisk(std::move(bytes));
}

std::vector<block::Region> twoRegions(const MemoryDisk& disk) {
  const std::uint64_t sectors = disk.size() / 512;
  return {{"first", 0, 100}, {"second", 100, sectors - 100}};
}

Trailer trailerOf(const std::vector<std::byte>& file) {
  return *decodeTrailer(std::span(file).last<kTrailerBytes>());
}

std::vector<BlockTable> tablesOf(const std::vector<std::byte>& file) {
  const Trailer trailer = trailerOf(file);
  const std::string_view text(reinterpret_cast<const char*>(file.data()) + trailer.propertyListOffset,
                              trailer.propertyListLength);
  return *decodeResources(*base::parseXMLPropertyList(text));
}

std::vector<std::byte> readBack(const std::vector<std::byte>& file) {
  std::vector<std::byte> disk(trailerOf(file).sectorCount * 512);
  codec::ZlibDecompressor decompressor;
  for (const BlockTable& table : tablesOf(file)) {
    for (const auto& run : table.runs) {
      const auto into =
          std::span(disk).subspan((table.firstSector + run.firstSector) * 512, run.sectorCount * 512);
      const auto stored = std::span(file).subspan(run.offset, run.length);
      if (run.type == RunType::raw) std::ranges::copy(stored, into.begin());
      if (run.type == RunType::zlib) {
        EXPECT_TRUE(decompressor.decompress(stored, into));
      }
    }
  }
  return disk;
}

TEST(WriteImage, holdsTheDiskInOrder) {
  const MemoryDisk disk = makeDisk();
  MemoryOutput output;
  const auto length = writeImage(disk, twoRegions(disk), output, {.workers = 3});
  ASSERT_TRUE(length);
  EXPECT_EQ(*length, output.file.size());
  EXPECT_EQ(readBack(output.file), disk.bytes());
  std::uint64_t expected = 0;
  for (const BlockTable& table : tablesOf(output.file))
    for (const auto& run : table.runs) {
      EXPECT_EQ(run.offset, expected);
      expected += run.length;
    }
}

TEST(WriteImage, sumsTheTablesTheDataForkAndTheTables) {
  const MemoryDisk disk = makeDisk();
  MemoryOutput output;
  ASSERT_TRUE(writeImage(disk, twoRegions(disk), output, {.workers = 2}));
  const auto tables = tablesOf(output.file);
  for (const BlockTable& table : tables) {
    const auto region = std::span(disk.bytes()).subspan(table.firstSector * 512, table.sectorCount * 512);
    EXPECT_EQ(table.checksum, codec::CRC32::of(region).value());
  }
  const Trailer trailer = trailerOf(output.file);
  EXPECT_EQ(trailer.masterChecksum, masterChecksum(tables));
  EXPECT_EQ(trailer.dataChecksum,
            codec::CRC32::of(std::span(output.file).first(trailer.dataForkLength)).value());
}

TEST(WriteImage, storesNoiseAsItIsAndZerosAsNothing) {
  const MemoryDisk disk = makeDisk();
  MemoryOutput output;
  ASSERT_TRUE(writeImage(disk, {{"all", 0, disk.size() / 512}}, output, {}));
  std::vector<RunType> types;
  const auto tables = tablesOf(output.file);
  for (const auto& run : tables.at(0).runs) types.push_back(run.type);
  EXPECT_THAT(types, testing::ElementsAre(RunType::raw, RunType::raw, RunType::zeros, RunType::zlib,
                                          RunType::zlib, RunType::zlib));
}

TEST(WriteImage, withoutCompressionHasOnlyRawRunsAndZeros) {
  const MemoryDisk disk = makeDisk();
  MemoryOutput output;
  ASSERT_TRUE(writeImage(disk, twoRegions(disk), output, {.compression = std::nullopt}));
  EXPECT_EQ(readBack(output.file), disk.bytes());
  for (const BlockTable& table : tablesOf(output.file)) {
    EXPECT_EQ(table.buffersNeeded, 0u);
    for (const auto& run : table.runs) EXPECT_NE(run.type, RunType::zlib);
  }
}

TEST(WriteImage, isTheSameForAnyNumberOfWorkers) {
  const MemoryDisk disk = makeDisk();
  MemoryOutput one;
  MemoryOutput many;
  ASSERT_TRUE(writeImage(disk, twoRegions(disk), one, {.workers = 1}));
  ASSERT_TRUE(writeImage(disk, twoRegions(disk), many, {.workers = 8}));
  EXPECT_EQ(one.file, many.file);
}

TEST(WriteImage, endsWithTheReadersError) {
  MemoryDisk disk = makeDisk();
  disk.damagedAt = 5 * kMegabyte;
  MemoryOutput output;
  const auto length = writeImage(disk, twoRegions(disk), output, {.workers = 4});
  ASSERT_FALSE(length);
  EXPECT_THAT(length.error().message, HasSubstr("/stick/photo"));
}

TEST(WriteImage, endsWithTheOutputsErrorWhicheverWriteFails) {
  const MemoryDisk disk = makeDisk();
  for (int failAt = 1; failAt <= 3; ++failAt) {
    MemoryOutput output;
    output.failAt = failAt;
    const auto length = writeImage(disk, twoRegions(disk), output, {.workers = 2});
    ASSERT_FALSE(length);
    EXPECT_THAT(length.error().message, HasSubstr("no space"));
  }
}

TEST(WriteImage, endsWhenCancelled) {
  const MemoryDisk disk = makeDisk();
  MemoryOutput output;
  const std::atomic<bool> cancelled = true;
  const auto length = writeImage(disk, twoRegions(disk), output, {.workers = 2, .cancelled = &cancelled});
  ASSERT_FALSE(length);
  EXPECT_THAT(length.error().message, HasSubstr("interrupted"));
}

TEST(WriteImage, countsItsProgress) {
  const MemoryDisk disk = makeDisk();
  MemoryOutput output;
  Progress progress;
  ASSERT_TRUE(writeImage(disk, twoRegions(disk), output, {.progress = &progress}));
  EXPECT_EQ(progress.sectorsTotal, disk.size() / 512);
  EXPECT_EQ(progress.sectorsDone, disk.size() / 512);
}

TEST(AlignedAppender, joinsPiecesOfAnyLength) {
  std::mt19937 random(3);
  AlignedAppender appender;
  std::vector<std::byte> expected;
  std::vector<std::byte> file;
  const auto carryOut = [&file](const AlignedAppender::Write& write) {
    EXPECT_EQ(write.offset, file.size());
    file.insert(file.end(), write.bytes.begin(), write.bytes.end());
  };
  for (const std::size_t size : {1, 4095, 1, 4096, 8191, 0, 100'000, 3}) {
    Piece piece(size);
    for (auto& b : piece.space()) expected.push_back(b = static_cast<std::byte>(random()));
    piece.setSize(size);
    const auto write = appender.place(piece);
    EXPECT_EQ(write.bytes.size() % 4096, 0u);
    carryOut(write);
  }
  carryOut(appender.finish());
  EXPECT_EQ(file, expected);
  EXPECT_EQ(appender.length(), expected.size());
}

TEST(Trailer, readsBackWhatItWrote) {
  const Trailer trailer{.dataForkLength = 1234,
                        .propertyListOffset = 1234,
                        .propertyListLength = 99,
                        .dataChecksum = 7,
                        .masterChecksum = std::nullopt,
                        .variant = 2,
                        .sectorCount = 5};
  const auto read = decodeTrailer(encodeTrailer(trailer));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->dataForkLength, 1234u);
  EXPECT_EQ(read->propertyListLength, 99u);
  EXPECT_EQ(read->dataChecksum, 7u);
  EXPECT_EQ(read->masterChecksum, std::nullopt);
  EXPECT_EQ(read->variant, 2u);
  EXPECT_EQ(read->sectorCount, 5u);
}

// A trailer whose data checksum says that it is of that kind, size and value.
base::Result<Trailer> withDataChecksum(std::uint32_t kind, std::uint32_t bits, std::uint32_t value) {
  constexpr std::size_t kPlace = 80;
  auto bytes = encodeTrailer(Trailer{});
  std::vector<std::byte> fields;
  base::ByteWriter(fields).put(kind).put(bits).put(value);
  std::ranges::copy(fields, bytes.begin() + kPlace);
  return decodeTrailer(bytes);
}

TEST(Trailer, passesOverChecksumsOfOtherKinds) {
  for (const std::uint32_t bits : {128u, 160u, 512u}) {
    const auto read = withDataChecksum(4, bits, 0x1234);
    ASSERT_TRUE(read) << bits;
    EXPECT_EQ(read->dataChecksum, std::nullopt);
  }
  EXPECT_TRUE(withDataChecksum(0, 32, 0));
}

TEST(Trailer, refusesAChecksumThatLostItsKind) {
  EXPECT_FALSE(withDataChecksum(0, 32, 0x1234));
  EXPECT_FALSE(withDataChecksum(3, 32, 0x1234));
  EXPECT_FALSE(withDataChecksum(2, 31, 0x1234));
  EXPECT_FALSE(withDataChecksum(4, 1025, 0x1234));
  EXPECT_FALSE(withDataChecksum(0x12345678, 160, 0x1234));
}

TEST(Trailer, refusesOtherFiles) {
  const std::array<std::byte, kTrailerBytes> zeros{};
  EXPECT_FALSE(decodeTrailer(zeros));
}

TEST(BlockTable, refusesRunsOutsideTheRegion) {
  const BlockTable table{.sectorCount = 10, .runs = {{RunType::raw, 5, 6, 0, 0}}};
  EXPECT_FALSE(decodeTable(encodeTable(table, 0)));
}

TEST(BlockTable, refusesMoreRunsThanThereAreBytes) {
  auto bytes = encodeTable({.sectorCount = 10, .runs = {{RunType::raw, 0, 10, 0, 0}}}, 0);
  bytes.pop_back();
  EXPECT_FALSE(decodeTable(bytes));
}

TEST(BlockTable, passesOverComments) {
  const BlockTable table{.sectorCount = 10,
                         .runs = {{RunType::comment, 0, 0, 0, 0}, {RunType::raw, 0, 10, 0, 0}}};
  const auto read = decodeTable(encodeTable(table, 0));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->runs.size(), 1u);
}

}  // namespace
}  // namespace image::udif
