#include <gtest/gtest.h>
#include <random>

#include "image/volume.h"
#include "tests/image/hand_made_volume.h"
#include "tests/image/walk_volume.h"

namespace image {
namespace {

using namespace std::string_literals;

// One of everything, in catalog and attributes files of several levels.
std::vector<std::byte> variedVolume() {
  HandMadeVolume made;
  made.catalogExtents = 12;
  const auto links = made.addFolder({.name = u"\0\0\0\0HFS+ Private Data"s, .mode = 0040700});
  made.addFile({.parent = links, .name = u"iNode77", .special = 2, .data = made.store("linked")});
  const auto folder = made.addFolder({.name = u"folder", .flags = 4});
  for (char16_t i = 0; i < 60; ++i) {
    const auto file = made.addFile({.parent = i % 3 == 0 ? HandMadeVolume::kRoot : folder,
                                    .name = u"file " + std::u16string(1, u'\u4E00' + i),
                                    .flags = 4,
                                    .data = made.store(std::string(std::size_t{i} * 1000, 'd'), 1u + i),
                                    .resources = made.store("resources")});
    made.addAttribute(file, u"note", std::string(700, 'n'));
    made.addAttribute(file, u"long", made.store(std::string(50'000, 'l'), 12));
  }
  made.addFile({.name = u"link", .mode = 0100444, .special = 77, .finderInfo = "hlnkhfs+"});
  made.addFile({.name = u"symbolic", .mode = 0120755, .data = made.store("folder")});
  const auto compressed = made.addFile({.name = u"compressed", .flags = 4, .ownerFlags = 0x20});
  made.addAttribute(compressed, u"com.apple.decmpfs",
                    "fpmc\x03\0\0\0\x03\0\0\0\0\0\0\0\xFF"
                    "abc"s);
  return made.make();
}

base::Result<Walked> walk(std::vector<std::byte> disk) {
  auto image = OpenedImage::plain(std::make_unique<base::MemoryRandomAccess>(std::move(disk)));
  if (!image) return image.error();
  const auto volume = Volume::open(*std::move(image), {.cacheBytes = 1 << 20, .workers = 1});
  if (!volume) return volume.error();
  return VolumeWalk(**volume).run();
}

// Of the bytes with a meaning: most of a volume is file data and empty space.
std::vector<std::size_t> bytesOfMeaning(const std::vector<std::byte>& disk) {
  std::vector<std::size_t> places;
  for (std::size_t i = 0; i < disk.size(); ++i)
    if (disk[i] != std::byte{0} && disk[i] != std::byte{'d'} && disk[i] != std::byte{'l'} &&
        disk[i] != std::byte{'n'} && disk[i] != std::byte{0xEE})
      places.push_back(i);
  return places;
}

TEST(DamagedVolume, givesErrorsAndAlwaysComesToAnEnd) {
  const auto whole = variedVolume();
  const auto healthy = walk(whole);
  ASSERT_TRUE(healthy) << healthy.error().message;
  EXPECT_EQ(healthy->errors, 0u);
  EXPECT_EQ(healthy->items, 64u);
  const auto places = bytesOfMeaning(whole);
  std::mt19937 random(7);
  int noticed = 0;
  for (int round = 0; round < 100; ++round) {
    auto damaged = whole;
    for (unsigned flips = 1 + random() % 3; flips > 0; --flips)
      damaged[places[random() % places.size()]] ^= static_cast<std::byte>(1u << random() % 8);
    const auto walked = walk(std::move(damaged));
    if (!walked || walked->errors != 0) ++noticed;
  }
  EXPECT_GT(noticed, 30);
}

TEST(DamagedVolume, givesErrorsWhereItIsCutShort) {
  const auto whole = variedVolume();
  for (std::size_t bytes = 0; bytes < whole.size(); bytes += whole.size() / 50)
    EXPECT_FALSE(walk({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(bytes)})) << bytes;
}

// Every leaf's neighbour is the first node behind the header, a leaf, so that a listing would go round and
// round.
TEST(DamagedVolume, doesNotGoRoundInALoopOfLeaves) {
  HandMadeVolume made;
  for (char16_t i = 0; i < 200; ++i)
    made.addFile({.name = std::u16string(20, u'a') + std::u16string(1, u'\u4E00' + i)});
  auto disk = made.make();
  // By their kind and height.
  std::vector<std::size_t> leaves;
  for (std::size_t at = 4096; at + 4096 < disk.size(); at += 4096)
    if (base::loadBigEndian<std::uint16_t>(disk.data() + at + 8) == 0xFF01) leaves.push_back(at);
  ASSERT_GT(leaves.size(), 3u);
  for (const std::size_t at : leaves) base::storeBigEndian(disk.data() + at, std::uint32_t{1});
  const auto walked = walk(std::move(disk));
  EXPECT_TRUE(!walked || walked->errors != 0);
}

}  // namespace
}  // namespace image
