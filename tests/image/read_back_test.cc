#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <optional>
#include <random>
#include <vector>

#include "image/crypt/container.h"
#include "image/udif/encrypted_output.h"
#include "image/udif/reader.h"
#include "image/udif/writer.h"

namespace image::udif {
namespace {

using testing::HasSubstr;

constexpr std::size_t kMegabyte = 1 << 20;

// A disk that flips a bit of the byte at `damagedAt` when it is written.
class MemoryFile : public block::Output {
 public:
  base::Result<void> write(std::uint64_t offset, std::span<std::byte> bytes) override {
    const std::lock_guard lock(mutex_);
    if (bytes_.size() < offset + bytes.size()) bytes_.resize(offset + bytes.size());
    std::ranges::copy(bytes, bytes_.begin() + static_cast<std::ptrdiff_t>(offset));
    if (damagedAt && offset <= *damagedAt && *damagedAt < offset + bytes.size())
      bytes_[*damagedAt] ^= std::byte{4};
    return {};
  }
  std::unique_ptr<base::RandomAccess> readBack() const override { return std::make_unique<View>(*this); }
  std::vector<std::byte> bytes() const { return bytes_; }

  std::optional<std::uint64_t> damagedAt{};

 private:
  class View : public base::RandomAccess {
   public:
    explicit View(const MemoryFile& file) : file_(file) {}
    std::uint64_t size() const override { return ~0ull >> 1; }
    bool read(std::uint64_t offset, std::span<std::byte> into) const override {
      const std::lock_guard lock(file_.mutex_);
      return base::SpanRandomAccess(file_.bytes_).read(offset, into);
    }

   private:
    const MemoryFile& file_;
  };

  mutable std::mutex mutex_;
  std::vector<std::byte> bytes_;
};

class MemoryDisk : public block::Content {
 public:
  // Megabytes of text, of noise and of zeros in turn.
  explicit MemoryDisk(std::size_t megabytes) : bytes_(megabytes * kMegabyte, std::byte{'t'}) {
    std::mt19937 random(3);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
      if (i / kMegabyte % 3 == 1) bytes_[i] = static_cast<std::byte>(random());
      if (i / kMegabyte % 3 == 2) bytes_[i] = std::byte{0};
    }
  }
  std::uint64_t size() const override { return bytes_.size(); }
  std::unique_ptr<block::ContentReader> openReader() const override {
    return std::make_unique<Reader>(bytes_);
  }

 private:
  class Reader : public block::ContentReader {
   public:
    explicit Reader(const std::vector<std::byte>& bytes) : bytes_(bytes) {}
    base::Result<block::Filled> read(std::uint64_t offset, std::span<std::byte> into) override {
      std::ranges::copy(std::span(bytes_).subspan(offset, into.size()), into.begin());
      return block::Filled::data;
    }

   private:
    const std::vector<std::byte>& bytes_;
  };
  std::vector<std::byte> bytes_;
};

base::Result<std::uint64_t> write(const MemoryDisk& disk, block::Output& output, RunSums* sums) {
  return writeImage(disk, {{"only", 0, disk.size() / 512}}, output, {.workers = 3, .readBack = sums});
}

std::vector<Run> storedRuns(const Image& image) {
  std::vector<Run> runs;
  for (const BlockTable& table : image.tables())
    for (const udif::Run& run : table.runs)
      if (run.type != RunType::zeros) runs.push_back(run);
  return runs;
}

TEST(ReadBack, knowsTheSumOfEveryStoredChunk) {
  MemoryFile file;
  RunSums sums;
  ASSERT_TRUE(write(MemoryDisk(100), file, &sums));
  const base::MemoryRandomAccess written(file.bytes());
  const auto image = Image::open(written);
  ASSERT_TRUE(image);
  RunSummer summer(written);
  const auto runs = storedRuns(*image);
  EXPECT_EQ(runs.size(), 67u);
  for (const udif::Run& run : runs) {
    const RunSum* known = sums.find(run, run.offset);
    ASSERT_NE(known, nullptr);
    EXPECT_EQ(*known, *summer.sum(run, run.offset, "only"));
  }
}

TEST(ReadBack, noticesAByteThatTheDiskChangedInAnyChunk) {
  const MemoryDisk disk(6);
  MemoryFile whole;
  ASSERT_TRUE(write(disk, whole, nullptr));
  const base::MemoryRandomAccess written(whole.bytes());
  for (const udif::Run& run : storedRuns(*Image::open(written)))
    for (const std::uint64_t at : {run.offset, run.offset + run.length / 2, run.offset + run.length - 1}) {
      MemoryFile file;
      file.damagedAt = at;
      RunSums sums;
      const auto result = write(disk, file, &sums);
      ASSERT_FALSE(result) << at;
      EXPECT_THAT(result.error().message, HasSubstr("read back from disk, a chunk of only is damaged"));
    }
}

TEST(ReadBack, readsWhatWasEncrypted) {
  MemoryFile file;
  const auto keys = crypt::ContainerKeys::random(
      crypt::Method::aes128, [](std::span<std::byte> into) { std::ranges::fill(into, std::byte{9}); });
  EncryptedOutput encrypted(keys, file);
  RunSums sums;
  ASSERT_TRUE(write(MemoryDisk(7), encrypted, &sums));
  MemoryFile damaged;
  damaged.damagedAt = crypt::ContainerHeader::kDataOffset + 5000;
  EncryptedOutput toDamaged(keys, damaged);
  EXPECT_FALSE(write(MemoryDisk(7), toDamaged, &sums));
}

TEST(VerifyChecksums, takesTheSumsOfRunsThatWereReadBeforeForGranted) {
  MemoryFile file;
  RunSums sums;
  ASSERT_TRUE(write(MemoryDisk(3), file, &sums));
  auto bytes = file.bytes();
  bytes[100] ^= std::byte{1};
  const base::MemoryRandomAccess damaged(std::move(bytes));
  const auto image = Image::open(damaged);
  ASSERT_TRUE(image);
  EXPECT_TRUE(verifyChecksums(*image, {.known = &sums}));
  EXPECT_FALSE(verifyChecksums(*image, {}));
}

}  // namespace
}  // namespace image::udif
