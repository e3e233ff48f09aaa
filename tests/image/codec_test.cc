#include <gtest/gtest.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "image/codec/bzip2_compressor.h"
#include "image/codec/bzip2_decompressor.h"
#include "image/codec/checksum.h"
#include "image/codec/zlib_codec.h"

namespace image::codec {
namespace {

std::vector<std::byte> noise(std::size_t count, unsigned seed = 1) {
  std::mt19937 random(seed);
  std::vector<std::byte> bytes(count);
  for (auto& b : bytes) b = static_cast<std::byte>(random());
  return bytes;
}

std::vector<std::byte> text(std::size_t count) {
  constexpr std::string_view kWords = "the quick brown fox jumps over the lazy dog 0123456789\n";
  std::vector<std::byte> bytes(count);
  for (std::size_t i = 0; i < count; ++i)
    bytes[i] = static_cast<std::byte>(kWords[(i * i / 7 + i) % kWords.size()]);
  return bytes;
}

TEST(CRC32, isTheOneOfZlib) {
  constexpr std::string_view kDigits = "123456789";
  EXPECT_EQ(CRC32::of(std::as_bytes(std::span(kDigits))).value(), 0xCBF43926);
}

TEST(CRC32, ofZerosNeedsNoZeros) {
  for (const std::size_t count : {0, 1, 511, 512, 1 << 20})
    EXPECT_EQ(CRC32::ofZeros(count).value(), CRC32::of(std::vector<std::byte>(count)).value());
}

TEST(CRC32, appendIsTheSumOfBoth) {
  const auto bytes = noise(10'000);
  for (const std::size_t cut : {0, 1, 4096, 10'000}) {
    CRC32 sum = CRC32::of(std::span(bytes).first(cut));
    sum.append(CRC32::of(std::span(bytes).subspan(cut)));
    EXPECT_EQ(sum.value(), CRC32::of(bytes).value());
    EXPECT_EQ(sum.count(), bytes.size());
  }
}

class ZlibCodec : public testing::TestWithParam<int> {};

TEST_P(ZlibCodec, givesBackWhatItMadeSmaller) {
  ZlibCompressor compressor(GetParam());
  ZlibDecompressor decompressor;
  for (const std::size_t count : {512, 65'536, 1 << 20}) {
    const auto bytes = text(count);
    std::vector<std::byte> small(count);
    const auto size = compressor.compress(bytes, small);
    ASSERT_GT(size, 0u);
    ASSERT_LT(size, count / 2 + 100);
    std::vector<std::byte> back(count);
    ASSERT_TRUE(decompressor.decompress(std::span(small).first(size), back));
    EXPECT_EQ(back, bytes);
  }
}

TEST_P(ZlibCodec, givesBackTextAndNoiseInTurn) {
  ZlibCompressor compressor(GetParam());
  ZlibDecompressor decompressor;
  for (const std::size_t part : {1000, 4096, 20'000, 150'000}) {
    std::vector<std::byte> bytes;
    for (unsigned i = 0; bytes.size() < 900'000; ++i) {
      const auto next = i % 2 == 0 ? noise(part, i) : text(part);
      bytes.insert(bytes.end(), next.begin(), next.end());
    }
    std::vector<std::byte> small(bytes.size());
    small.resize(compressor.compress(bytes, small));
    EXPECT_GT(small.size(), bytes.size() / 2);
    EXPECT_LT(small.size(), bytes.size() * 3 / 4);
    std::vector<std::byte> back(bytes.size());
    ASSERT_TRUE(decompressor.decompress(small, back));
    EXPECT_EQ(back, bytes);
  }
}

TEST_P(ZlibCodec, fitsExactlyOrSaysSo) {
  ZlibCompressor compressor(GetParam());
  auto bytes = noise(200'000);
  std::ranges::fill(std::span(bytes).first(100'000), std::byte{'x'});
  std::vector<std::byte> room(bytes.size());
  const std::size_t needed = compressor.compress(bytes, room);
  ASSERT_GT(needed, 100'000u);
  EXPECT_EQ(compressor.compress(bytes, std::span(room).first(needed - 1)), 0u);
  EXPECT_EQ(compressor.compress(bytes, std::span(room).first(1)), 0u);
}

TEST_P(ZlibCodec, saysWhenTheRoomDoesNotDo) {
  ZlibCompressor compressor(GetParam());
  const auto bytes = noise(1 << 16);
  std::vector<std::byte> room(bytes.size() - 1);
  EXPECT_EQ(compressor.compress(bytes, room), 0u);
}

INSTANTIATE_TEST_SUITE_P(Levels, ZlibCodec, testing::Values(1, 3, 6, 9));

TEST(ZlibCompressor, makesLessOfItAtAHigherLevel) {
  std::string numbers;
  for (unsigned i = 0; i < 200'000; ++i) numbers += std::to_string(i * 7919 % 65'537) + " ";
  const auto bytes = std::as_bytes(std::span(numbers));
  std::vector<std::byte> room(bytes.size());
  std::size_t last = bytes.size();
  for (const int level : {1, 3, 9}) {
    const auto size = ZlibCompressor(level).compress(bytes, room);
    EXPECT_LT(size, last) << level;
    last = size;
  }
}

TEST(Bzip2Compressor, givesBackWhatItMadeSmaller) {
  for (const std::size_t count : {512, 65'536, 1 << 20}) {
    const auto bytes = text(count);
    std::vector<std::byte> small(count);
    small.resize(Bzip2Compressor().compress(bytes, small));
    ASSERT_FALSE(small.empty());
    std::vector<std::byte> back(count);
    ASSERT_TRUE(Bzip2Decompressor().decompress(small, back));
    EXPECT_EQ(back, bytes);
    EXPECT_EQ(Bzip2Compressor().compress(bytes, std::span(back).first(small.size() - 1)), 0u);
  }
}

TEST(ZlibDecompressor, refusesDamagedShortAndLongStreams) {
  ZlibCompressor compressor(ZlibCompressor::kFastest);
  ZlibDecompressor decompressor;
  const auto bytes = text(4096);
  std::vector<std::byte> small(4096);
  small.resize(compressor.compress(bytes, small));
  std::vector<std::byte> back(4096);
  auto damaged = small;
  damaged[damaged.size() - 1] ^= std::byte{1};
  EXPECT_FALSE(decompressor.decompress(damaged, back));
  EXPECT_FALSE(decompressor.decompress(std::span(small).first(small.size() - 1), back));
  std::vector<std::byte> larger(4097);
  EXPECT_FALSE(decompressor.decompress(small, larger));
  auto followed = small;
  followed.push_back(std::byte{0});
  EXPECT_FALSE(decompressor.decompress(followed, back));
}

TEST(LooksCompressible, tellsTextFromNoise) {
  EXPECT_TRUE(looksCompressible(text(1 << 20)));
  EXPECT_FALSE(looksCompressible(noise(1 << 20)));
}

TEST(LooksCompressible, givesHalfNoiseAChance) {
  auto bytes = noise(1 << 20);
  std::fill(bytes.begin(), bytes.begin() + (1 << 19), std::byte{'x'});
  EXPECT_TRUE(looksCompressible(bytes));
}

}  // namespace
}  // namespace image::codec
