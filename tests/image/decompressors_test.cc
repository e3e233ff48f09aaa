#include <algorithm>
#include <gtest/gtest.h>
#include <lzma.h>

#include "image/codec/adc_decompressor.h"
#include "image/codec/decompressor.h"
#include "tests/image/hand_made_image.h"

namespace image::codec {
namespace {

using udif::RunType;
using Bytes = std::vector<std::byte>;

Bytes bytesOf(std::initializer_list<int> values) {
  Bytes bytes;
  for (const int value : values) bytes.push_back(static_cast<std::byte>(value));
  return bytes;
}

// The text that comes out; "refused" where none does.
std::string fromADC(std::initializer_list<int> stored, std::size_t size) {
  std::string text(size, '?');
  const bool done = ADCDecompressor().decompress(bytesOf(stored), std::as_writable_bytes(std::span(text)));
  return done ? text : "refused";
}

TEST(ADCDecompressor, takesLiterals) { EXPECT_EQ(fromADC({0x82, 'a', 'b', 'c', 0x80, 'd'}, 4), "abcd"); }

TEST(ADCDecompressor, copiesAFewBytesFromNearby) {
  EXPECT_EQ(fromADC({0x83, 'a', 'b', 'c', 'd', 0x04, 3}, 8), "abcdabcd");
}

TEST(ADCDecompressor, takesTwoBitsOfAShortCopysDistanceFromItsFirstByte) {
  Bytes stored;
  std::string expected;
  for (int i = 0; i < 3; ++i) {
    stored.push_back(std::byte{0xFF});
    stored.insert(stored.end(), 128, static_cast<std::byte>('a' + i));
    expected += std::string(128, static_cast<char>('a' + i));
  }
  const auto copy = bytesOf({0x00 | 1, 0x7F});  // three bytes from 0x17F + 1 = 384 before
  stored.insert(stored.end(), copy.begin(), copy.end());
  std::string text(387, '?');
  EXPECT_TRUE(ADCDecompressor().decompress(stored, std::as_writable_bytes(std::span(text))));
  EXPECT_EQ(text, expected + "aaa");
}

TEST(ADCDecompressor, copiesMoreBytesFromFarther) {
  EXPECT_EQ(fromADC({0x81, 'a', 'b', 0x40 | 2, 0, 1}, 8), "abababab");
}

TEST(ADCDecompressor, refusesCopiesFromBeforeTheBeginning) {
  EXPECT_EQ(fromADC({0x80, 'a', 0x00, 1}, 4), "refused");
  EXPECT_EQ(fromADC({0x80, 'a', 0x40, 0xFF, 0xFF}, 5), "refused");
}

TEST(ADCDecompressor, refusesWhatDoesNotFitOrFill) {
  EXPECT_EQ(fromADC({0x82, 'a', 'b', 'c'}, 2), "refused");
  EXPECT_EQ(fromADC({0x82, 'a', 'b', 'c'}, 4), "refused");
  EXPECT_EQ(fromADC({0x80, 'a', 0x00, 0}, 3), "refused");
}

TEST(ADCDecompressor, refusesInputThatEndsWithinAStep) {
  EXPECT_EQ(fromADC({0x82, 'a', 'b'}, 2), "refused");
  EXPECT_EQ(fromADC({0x80, 'a', 0x00}, 1), "refused");
  EXPECT_EQ(fromADC({0x80, 'a', 0x40, 0}, 1), "refused");
}

struct Kind {
  Compression compression;
  RunType type;
};

class Decompressors : public testing::TestWithParam<Kind> {
 protected:
  bool gives(const Bytes& from, std::size_t size) {
    made.assign(size, std::byte{'?'});
    return decompressor->decompress(from, made);
  }

  const Bytes plain = textSectors(200, 1);
  const Bytes stored = storedAs(GetParam().type, plain);
  const std::unique_ptr<Decompressor> decompressor = makeDecompressor(GetParam().compression);
  Bytes made;
};

TEST_P(Decompressors, giveStreamAfterStream) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(gives(stored, plain.size()));
    EXPECT_EQ(made, plain);
  }
}

TEST_P(Decompressors, refuseAStreamOfAnotherLength) {
  EXPECT_FALSE(gives(stored, plain.size() - 1));
  EXPECT_FALSE(gives(stored, plain.size() + 1));
  EXPECT_FALSE(gives(stored, 0));
}

TEST_P(Decompressors, refuseAStreamThatIsCutOrFollowedBySomething) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, stored.size() / 2, stored.size() - 1})
    EXPECT_FALSE(gives({stored.begin(), stored.begin() + static_cast<std::ptrdiff_t>(size)}, plain.size()));
  auto longer = stored;
  longer.push_back(std::byte{0});
  EXPECT_FALSE(gives(longer, plain.size()));
}

TEST_P(Decompressors, areUsableAfterAStreamThatIsDamaged) {
  auto damaged = stored;
  for (std::size_t at = stored.size() / 2; at < stored.size() / 2 + 20; ++at) damaged[at] ^= std::byte{0xFF};
  const bool refused = !gives(damaged, plain.size()) || made != plain;
  EXPECT_TRUE(refused);
  EXPECT_TRUE(gives(stored, plain.size()));
  EXPECT_EQ(made, plain);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Decompressors,
                         testing::Values(Kind{Compression::adc, RunType::adc},
                                         Kind{Compression::zlib, RunType::zlib},
                                         Kind{Compression::bzip2, RunType::bzip2},
                                         Kind{Compression::lzma, RunType::lzma}));

// The dictionary's size stands in the block's header, behind the 12 bytes of the stream's: header size,
// flags, filter, size of its properties, the property itself, padding, CRC32.
TEST(XzDecompressor, refusesADictionaryOfFourGigabytes) {
  const auto plain = textSectors(4, 1);
  auto stored = storedAs(RunType::lzma, plain);
  const auto block = std::span(stored).subspan(12);
  const std::size_t headerBytes = (std::to_integer<std::size_t>(block[0]) + 1) * 4;
  const std::size_t filter = headerBytes - 4 - 3;
  const auto at =
      std::find(block.begin() + 2, block.begin() + static_cast<std::ptrdiff_t>(filter + 3), std::byte{0x21});
  ASSERT_NE(at, block.begin() + static_cast<std::ptrdiff_t>(filter + 3));
  *(at + 2) = std::byte{40};
  const std::uint32_t sum =
      lzma_crc32(reinterpret_cast<const std::uint8_t*>(block.data()), headerBytes - 4, 0);
  for (std::size_t i = 0; i < 4; ++i) block[headerBytes - 4 + i] = static_cast<std::byte>(sum >> (8 * i));
  Bytes made(plain.size());
  EXPECT_FALSE(makeDecompressor(Compression::lzma)->decompress(stored, made));
}

}  // namespace
}  // namespace image::codec
