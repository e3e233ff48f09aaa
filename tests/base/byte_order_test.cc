#include "base/byte_order.h"

#include <gmock/gmock.h>

namespace base {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

std::vector<std::byte> bytes(std::initializer_list<int> values) {
  std::vector<std::byte> all;
  for (const int value : values) all.push_back(static_cast<std::byte>(value));
  return all;
}

TEST(ByteWriter, putsTheMostSignificantByteFirst) {
  std::vector<std::byte> out;
  ByteWriter(out).put(std::uint8_t{1}).put(std::uint16_t{0x0203}).put(std::uint32_t{0x04050607}).zeros(2);
  ByteWriter(out).put(std::uint64_t{0x08090A0B0C0D0E0F}).put(bytes({0x10}));
  EXPECT_EQ(out, bytes({1, 2, 3, 4, 5, 6, 7, 0, 0, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
}

TEST(ByteReader, readsFieldsInOrder) {
  const auto all = bytes({0xFF, 0x80, 0x01, 0, 0, 0, 2, 9, 0, 0, 0, 0, 0, 0, 0, 3, 7, 8});
  ByteReader reader(all);
  EXPECT_EQ(reader.get<std::uint8_t>(), 0xFF);
  EXPECT_EQ(reader.get<std::uint16_t>(), 0x8001);
  EXPECT_EQ(reader.get<std::uint32_t>(), 2u);
  reader.skip(1);
  EXPECT_EQ(reader.get<std::uint64_t>(), 3u);
  EXPECT_THAT(reader.take(2), ElementsAre(std::byte{7}, std::byte{8}));
  EXPECT_EQ(reader.remaining(), 0u);
  EXPECT_TRUE(reader.ok());
}

TEST(ByteReader, failsForGoodAtAReadPastTheEnd) {
  const auto all = bytes({1, 2, 3});
  ByteReader reader(all);
  EXPECT_EQ(reader.get<std::uint32_t>(), 0u);
  EXPECT_FALSE(reader.ok());
  EXPECT_EQ(reader.get<std::uint8_t>(), 0u);
  EXPECT_THAT(reader.take(1), SizeIs(0));
  EXPECT_FALSE(reader.ok());
}

TEST(ByteReader, refusesACountNearTheLargest) {
  const auto all = bytes({1, 2, 3});
  ByteReader reader(all);
  reader.skip(1);
  EXPECT_THAT(reader.take(~std::size_t{0}), SizeIs(0));
  EXPECT_FALSE(reader.ok());
}

TEST(ByteReader, takesNothingAtTheEndWithoutFailing) {
  ByteReader reader(std::span<const std::byte>{});
  EXPECT_THAT(reader.take(0), SizeIs(0));
  EXPECT_TRUE(reader.ok());
}

}  // namespace
}  // namespace base
