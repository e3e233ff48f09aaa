#include "image/udif/disk_view.h"

#include <algorithm>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <random>
#include <thread>

#include "image/udif/chunk_decoder.h"
#include "tests/image/hand_made_image.h"
#include "tests/tools/scratch_folder.h"

namespace image::udif {
namespace {

using testing::HasSubstr;
using Bytes = std::vector<std::byte>;

constexpr std::size_t kChunkSectors = 64;
constexpr std::size_t kChunkBytes = kChunkSectors * 512;

// A file that knows which reads reached it, and can fail.
class WatchedFile : public base::RandomAccess {
 public:
  explicit WatchedFile(Bytes bytes) : bytes_(std::move(bytes)) {}

  std::uint64_t size() const override { return bytes_.size(); }
  bool read(std::uint64_t offset, std::span<std::byte> into) const override {
    if (into.empty()) return true;
    {
      const std::lock_guard lock(mutex_);
      reads_.push_back(offset);
      if (fails_) return false;
    }
    changed_.notify_all();
    return base::SpanRandomAccess(bytes_).read(offset, into);
  }

  void setFailing(bool fails) {
    const std::lock_guard lock(mutex_);
    fails_ = fails;
  }
  std::size_t readsAt(std::uint64_t offset) const {
    const std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::ranges::count(reads_, offset));
  }
  std::size_t reads() const {
    const std::lock_guard lock(mutex_);
    return reads_.size();
  }
  // False when nobody reads there for a minute.
  bool waitForReadAt(std::uint64_t offset) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::minutes(1),
                             [&] { return std::ranges::count(reads_, offset) != 0; });
  }

 private:
  const Bytes bytes_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  mutable std::vector<std::uint64_t> reads_;
  bool fails_ = false;
};

// An image that is open, with the view of its disk.
struct Opened {
  explicit Opened(Bytes bytes, const DiskView::Options& options = {.workers = 2}) : file(std::move(bytes)) {
    auto opened = Image::open(file);
    EXPECT_TRUE(opened) << opened.error().message;
    image.emplace(*std::move(opened));
    view.emplace(*image, options);
  }
  std::uint64_t placeOf(std::size_t run) const {
    return image->fileOffset(image->tables()[0], image->tables()[0].runs[run]);
  }
  Bytes read(std::uint64_t offset, std::size_t count) const {
    Bytes bytes(count);
    const auto done = view->readChecked(offset, bytes);
    EXPECT_TRUE(done) << done.error().message;
    return bytes;
  }
  Bytes whole() const { return read(0, view->size()); }

  WatchedFile file;
  std::optional<Image> image;
  std::optional<DiskView> view;
};

std::string failureOf(const Opened& opened, std::uint64_t offset, std::size_t count) {
  Bytes bytes(count);
  const auto done = opened.view->readChecked(offset, bytes);
  return done ? "it did not fail" : done.error().message;
}

HandMadeTable chunksOf(RunType type, std::size_t count) {
  HandMadeTable table{.name = "whole disk (Apple_HFS : 0)", .sectorCount = count * kChunkSectors};
  for (unsigned i = 0; i < count; ++i)
    table.chunks.push_back({type, i * kChunkSectors, textSectors(kChunkSectors, i)});
  return table;
}

Bytes diskOf(const std::vector<HandMadeTable>& tables) {
  std::uint64_t sectors = 0;
  for (const auto& table : tables) sectors = std::max(sectors, table.firstSector + table.sectorCount);
  Bytes disk(sectors * 512);
  for (const auto& table : tables)
    for (const auto& chunk : table.chunks)
      std::ranges::copy(chunk.plain, disk.begin() + static_cast<std::ptrdiff_t>(
                                                        (table.firstSector + chunk.firstSector) * 512));
  return disk;
}

// Two tables with a gap between them and one within, chunks of every type and size.
std::vector<HandMadeTable> everything() {
  return {{.name = "first (Apple_HFS : 1)",
           .firstSector = 3,
           .sectorCount = 400,
           .chunks = {{RunType::adc, 0, textSectors(7, 1)},
                      {RunType::zlib, 7, textSectors(64, 2)},
                      {RunType::comment, 0, {}},
                      {RunType::zeros, 71, Bytes(29 * 512)},
                      {RunType::bzip2, 100, textSectors(100, 3)},
                      {RunType::raw, 250, textSectors(50, 4)},
                      {RunType::ignored, 300, Bytes(10 * 512)},
                      {RunType::lzma, 310, textSectors(90, 5)}}},
          {.name = "second (Apple_HFS : 2)",
           .firstSector = 500,
           .sectorCount = 40,
           .chunks = {{RunType::lzma, 20, textSectors(20, 6)}, {RunType::zlib, 0, textSectors(20, 7)}},
           .dataOffset = 17}};
}

TEST(DiskView, readsEveryTypeOfChunkWhereverItStands) {
  const auto tables = everything();
  const auto disk = diskOf(tables);
  for (const HandMadeLayout& layout :
       {HandMadeLayout{}, HandMadeLayout{.backwards = true},
        HandMadeLayout{.dataForkOffset = 4321, .gap = 13},
        HandMadeLayout{.dataForkOffset = 7, .backwards = true, .gap = 100, .summed = true}}) {
    const Opened opened(handMadeImage(tables, layout));
    EXPECT_EQ(opened.whole(), disk);
  }
}

TEST(DiskView, readsAnyPart) {
  const auto disk = diskOf(everything());
  const Opened opened(handMadeImage(everything(), {.backwards = true}),
                      {.cacheBytes = 100'000, .workers = 2});
  std::mt19937 random(1);
  for (int i = 0; i < 500; ++i) {
    const std::size_t offset = random() % disk.size();
    const std::size_t count = random() % std::min<std::size_t>(disk.size() - offset, 60'000);
    EXPECT_TRUE(std::ranges::equal(opened.read(offset, count), std::span(disk).subspan(offset, count)));
  }
}

TEST(DiskView, isTheSameForSevenZip) {
  auto table = chunksOf(RunType::zlib, 6);
  table.chunks[1].type = RunType::bzip2;
  table.chunks[2].type = RunType::lzma;
  table.chunks[3].type = RunType::adc;
  table.chunks[4].type = RunType::raw;
  const auto file = handMadeImage({table}, {.backwards = true, .gap = 5, .summed = true});
  const ScratchFolder scratch;
  scratch.write("image.dmg", {reinterpret_cast<const char*>(file.data()), file.size()});
  const auto extracted = runShell("cd " + shellWord(scratch.path().string()) +
                                  " && 7zz t -tdmg image.dmg && 7zz x -tdmg -so image.dmg > disk");
  EXPECT_EQ(extracted.status, 0) << extracted.output;
  EXPECT_THAT(extracted.output, Not(HasSubstr("WARNING")));
  const auto theirs = readFile(scratch / "disk");
  EXPECT_TRUE(std::ranges::equal(Opened(file).whole(), std::as_bytes(std::span(theirs))));
}

TEST(DiskView, givesOverlappingSectorsToTheChunkThatBeginsFirst) {
  const Opened opened(handMadeImage({{.name = "a",
                                      .sectorCount = 30,
                                      .chunks = {{RunType::zlib, 10, textSectors(10, 2)},
                                                 {RunType::zlib, 0, textSectors(15, 1)},
                                                 {RunType::raw, 2, textSectors(3, 3)}}},
                                     {.name = "b",
                                      .firstSector = 18,
                                      .sectorCount = 12,
                                      .chunks = {{RunType::raw, 0, textSectors(12, 4)}}}}));
  auto expected = textSectors(15, 1);
  const auto second = textSectors(10, 2);
  const auto third = textSectors(12, 4);
  expected.insert(expected.end(), second.begin() + 5 * 512, second.end());
  expected.insert(expected.end(), third.begin() + 2 * 512, third.end());
  EXPECT_EQ(opened.whole(), expected);
}

TEST(DiskView, refusesWhatLiesOutsideTheDisk) {
  const Opened opened(handMadeImage({chunksOf(RunType::zlib, 1)}));
  EXPECT_THAT(failureOf(opened, kChunkBytes - 1, 2), HasSubstr("lies outside the disk"));
  EXPECT_THAT(failureOf(opened, ~0ull, 2), HasSubstr("lies outside the disk"));
  EXPECT_TRUE(opened.read(kChunkBytes, 0).empty());
}

TEST(DiskView, namesTheTypeAndTheSectorOfAChunkThatIsNotSupported) {
  auto table = chunksOf(RunType::zlib, 3);
  table.chunks[1].type = RunType::lzfse;
  table.chunks[2].type = static_cast<RunType>(0x80000009);
  table.chunks[2].plain.resize(512);
  auto file = handMadeImage({table});
  const Opened opened(file);
  EXPECT_EQ(opened.read(0, kChunkBytes), table.chunks[0].plain);
  EXPECT_THAT(failureOf(opened, kChunkBytes, 1),
              "chunk type LZFSE (0x80000007) is not supported (whole disk (Apple_HFS : 0), sector 64)");
  EXPECT_THAT(failureOf(opened, 2 * kChunkBytes, 1), HasSubstr("chunk type 0x80000009 is not supported"));
}

TEST(DiskView, readsAroundADamagedChunk) {
  const auto table = chunksOf(RunType::bzip2, 3);
  auto file = handMadeImage({table});
  const auto place = Opened(file).placeOf(1);
  for (std::size_t i = 20; i < 40; ++i) file[place + i] ^= std::byte{0xFF};
  const Opened opened(file);
  EXPECT_THAT(failureOf(opened, 0, 3 * kChunkBytes), HasSubstr("is damaged (sector 64)"));
  EXPECT_EQ(opened.read(0, kChunkBytes), table.chunks[0].plain);
  EXPECT_EQ(opened.read(2 * kChunkBytes, kChunkBytes), table.chunks[2].plain);
}

TEST(CompressedRun, isRefusedWhereItIsTooLargeToHold) {
  const udif::Run large{.type = RunType::zlib, .sectorCount = kMostRunSectors + 1, .length = 100};
  EXPECT_THAT(checkCompressed(large, "a table").error().message, HasSubstr("more than 256 MiB"));
  const udif::Run stretched{.type = RunType::zlib, .sectorCount = 1, .length = 1 << 20};
  EXPECT_THAT(checkCompressed(stretched, "a table").error().message, HasSubstr("damaged"));
}

TEST(DiskView, costsOnlyTheChunkThatIsRead) {
  const Opened opened(handMadeImage({chunksOf(RunType::zlib, 50)}));
  const auto before = opened.file.reads();
  opened.read(45 * kChunkBytes + 10, 100);
  EXPECT_EQ(opened.file.reads(), before + 1);
  EXPECT_EQ(opened.file.readsAt(opened.placeOf(45)), 1u);
}

TEST(DiskView, decompressesAChunkOnceForAllThreads) {
  const auto table = chunksOf(RunType::lzma, 4);
  const Opened opened(handMadeImage({table}));
  std::barrier together(8);
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i)
      threads.emplace_back([&] {
        together.arrive_and_wait();
        EXPECT_EQ(opened.read(2 * kChunkBytes, kChunkBytes), table.chunks[2].plain);
      });
  }
  EXPECT_EQ(opened.file.readsAt(opened.placeOf(2)), 1u);
}

TEST(DiskView, keepsTheChunksUsedLastWithinItsBounds) {
  const Opened opened(handMadeImage({chunksOf(RunType::zlib, 8)}),
                      {.cacheBytes = 2 * kChunkBytes, .workers = 1});
  for (const std::size_t chunk : {0, 2, 0, 4, 0, 2}) opened.read(chunk * kChunkBytes, 1);
  EXPECT_EQ(opened.file.readsAt(opened.placeOf(0)), 1u);
  EXPECT_EQ(opened.file.readsAt(opened.placeOf(2)), 2u);
}

TEST(DiskView, keepsTheChunkInUseHoweverSmallItsBoundsAre) {
  const Opened opened(handMadeImage({chunksOf(RunType::zlib, 8)}), {.cacheBytes = 0, .workers = 1});
  for (std::size_t at = 0; at < kChunkBytes; at += 512) opened.read(3 * kChunkBytes + at, 512);
  EXPECT_EQ(opened.file.readsAt(opened.placeOf(3)), 1u);
}

TEST(DiskView, readsAheadOfWhoReadsOnAndOn) {
  const Opened opened(handMadeImage({chunksOf(RunType::zlib, 30)}));
  for (std::size_t chunk = 0; chunk < 4; ++chunk) opened.read(chunk * kChunkBytes, kChunkBytes);
  EXPECT_TRUE(opened.file.waitForReadAt(opened.placeOf(7)));
  EXPECT_EQ(opened.whole(), diskOf({chunksOf(RunType::zlib, 30)}));
}

TEST(DiskView, triesAgainWhatTheMediumRefused) {
  const auto table = chunksOf(RunType::zlib, 3);
  Opened opened(handMadeImage({table}));
  opened.file.setFailing(true);
  EXPECT_THAT(failureOf(opened, 0, 1), HasSubstr("cannot be read"));
  opened.file.setFailing(false);
  EXPECT_EQ(opened.read(0, kChunkBytes), table.chunks[0].plain);
}

TEST(DiskView, servesManyThreadsAtOnce) {
  const auto disk = diskOf(everything());
  const Opened opened(handMadeImage(everything()), {.cacheBytes = 150'000, .workers = 3});
  std::vector<std::jthread> threads;
  for (unsigned t = 0; t < 6; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 random(t);
      for (int i = 0; i < 100; ++i) {
        const std::size_t offset =
            t % 2 == 0 ? static_cast<std::size_t>(i) * 2500 : random() % (disk.size() - 3000);
        EXPECT_TRUE(std::ranges::equal(opened.read(offset, 3000), std::span(disk).subspan(offset, 3000)));
      }
    });
}

TEST(DiskView, mayEndWhileItReadsAhead) {
  for (int i = 0; i < 20; ++i) {
    const Opened opened(handMadeImage({chunksOf(RunType::zlib, 12)}));
    opened.read(0, 5 * kChunkBytes);
  }
}

}  // namespace
}  // namespace image::udif
