#include "image/hfs/nanoseconds.h"

#include <gtest/gtest.h>
#include <vector>

#include "base/byte_order.h"

namespace image::hfs {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

std::vector<std::byte> tableOf(const Tree& tree) {
  std::vector<std::byte> bytes(nanosecondsBytes(tree));
  readNanoseconds(tree, 0, bytes);
  return bytes;
}

Tree treeWith(const Times& times) {
  Tree tree({.name = "V", .mode = mode::kFolder, .times = {}});
  EXPECT_TRUE(tree.add(kRootNode, {.name = "file", .mode = mode::kRegular, .times = times}));
  tree.finish();
  return tree;
}

TEST(Nanoseconds, takeNoRoomWhereAllDatesAreWholeSeconds) {
  EXPECT_EQ(nanosecondsBytes(treeWith({kSecond, -kSecond, 0, 5 * kSecond})), 0u);
}

TEST(Nanoseconds, areKeptForEachItemAfterTheSignature) {
  const auto table = tableOf(treeWith({7 * kSecond + 1, -1, 2, 3}));
  ASSERT_EQ(table.size(), 48u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(table.data()), 16), "stashwick.nsec.1");
  EXPECT_EQ(std::vector(16, std::byte{0}), std::vector(table.begin() + 16, table.begin() + 32));
  base::ByteReader entry(std::span<const std::byte>(table).subspan(32));
  for (const std::uint32_t expected : {1u, 999'999'999u, 2u, 3u})
    EXPECT_EQ(entry.get<std::uint32_t>(), expected);
}

TEST(Nanoseconds, readTheSameInAnyPieces) {
  const auto tree = treeWith({1, 2, 3, 4});
  const auto table = tableOf(tree);
  for (std::size_t from = 0; from < table.size(); ++from)
    for (std::size_t to = from; to <= table.size(); ++to) {
      std::vector<std::byte> piece(to - from);
      readNanoseconds(tree, from, piece);
      EXPECT_TRUE(std::equal(piece.begin(), piece.end(), table.begin() + static_cast<std::ptrdiff_t>(from)));
    }
}

}  // namespace
}  // namespace image::hfs
