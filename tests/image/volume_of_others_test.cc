#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>

#include "image/codec/zlib_codec.h"
#include "image/volume.h"
#include "tests/image/hand_made_volume.h"
#include "tests/image/walk_volume.h"

namespace image {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using namespace std::string_literals;

constexpr std::uint32_t kRoot = HandMadeVolume::kRoot;

base::Result<std::unique_ptr<Volume>> tryOpen(std::vector<std::byte> disk) {
  auto image = OpenedImage::plain(std::make_unique<base::MemoryRandomAccess>(std::move(disk)));
  if (!image) return image.error();
  return Volume::open(*std::move(image));
}

std::unique_ptr<Volume> open(std::vector<std::byte> disk) {
  auto volume = tryOpen(std::move(disk));
  EXPECT_TRUE(volume) << volume.error().message;
  return volume ? *std::move(volume) : nullptr;
}

std::map<std::string, Item> itemsOf(const Volume& volume, std::uint32_t folder) {
  std::map<std::string, Item> items;
  const auto listed = volume.list(folder, [&](std::string_view name, const Item& item) {
    EXPECT_TRUE(items.emplace(name, item).second) << name << " comes twice";
    const auto found = volume.lookup(folder, name);
    EXPECT_TRUE(found && *found && (*found)->id == item.id) << name;
    return base::Result<void>();
  });
  EXPECT_TRUE(listed) << listed.error().message;
  return items;
}

std::string dataOf(const Volume& volume, std::uint32_t id, std::uint64_t offset = 0,
                   std::size_t most = 1 << 24) {
  std::string data(most, '?');
  const auto read = volume.read(id, offset, std::as_writable_bytes(std::span(data)));
  EXPECT_TRUE(read) << read.error().message;
  data.resize(read ? *read : 0);
  return data;
}

std::string attributeOf(const Volume& volume, std::uint32_t id, std::string_view name) {
  const auto value = volume.attribute(id, name);
  EXPECT_TRUE(value) << value.error().message;
  if (!value || !*value) return "none";
  return std::string(reinterpret_cast<const char*>((*value)->data()), (*value)->size());
}

// Text that tells each of its bytes from its neighbours.
std::string lines(std::size_t bytes) {
  std::string text;
  for (int i = 0; text.size() < bytes; ++i) text += "line " + std::to_string(i) + "\n";
  return text.substr(0, bytes);
}

template <std::unsigned_integral T>
void put(std::string& into, T value, bool isLittleEndian = false) {
  std::array<std::byte, sizeof(T)> bytes;
  base::storeBigEndian(bytes.data(), value);
  if (isLittleEndian) std::ranges::reverse(bytes);
  into.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

TEST(VolumeOfOthers, resolvesHardLinksToFilesAndFolders) {
  HandMadeVolume made;
  const auto files = made.addFolder({.name = u"\0\0\0\0HFS+ Private Data"s, .mode = 0040700});
  const auto folders = made.addFolder({.name = u".HFS+ Private Directory Data\r", .mode = 0040700});
  const auto file =
      made.addFile({.parent = files, .name = u"iNode77", .special = 2, .data = made.store("in both")});
  const auto folder =
      made.addFolder({.parent = folders, .name = u"dir_78", .flags = 0x20, .mode = 0040750, .special = 2});
  made.addFile({.parent = folder, .name = u"inside", .data = made.store("there")});
  for (const auto* name : {u"one", u"two"})
    made.addFile({.name = name, .mode = 0100444, .special = 77, .finderInfo = "hlnkhfs+"});
  for (const auto* name : {u"three", u"four"})
    made.addFile({.name = name, .flags = 0x20, .mode = 0100444, .special = 78, .finderInfo = "fdrpMACS"});
  // Of a link's type, but from another time; and a mere alias.
  made.addFile({.name = u"no link", .created = 5, .special = 77, .finderInfo = "hlnkhfs+"});
  made.addFile({.name = u"alias", .special = 78, .finderInfo = "fdrpMACS"});
  const auto volume = open(made.make());
  auto items = itemsOf(*volume, kRoot);
  EXPECT_EQ(items.size(), 6u);
  EXPECT_EQ(items["one"].id, file);
  EXPECT_EQ(items["two"].id, file);
  EXPECT_EQ(items["one"].links, 2u);
  EXPECT_EQ(dataOf(*volume, file), "in both");
  EXPECT_EQ(items["three"].id, folder);
  EXPECT_EQ(items["four"].kind, ItemKind::folder);
  EXPECT_EQ(items["four"].permissions, 0750);
  EXPECT_THAT(itemsOf(*volume, folder), ElementsAre(Pair("inside", testing::_)));
  EXPECT_EQ(items["no link"].links, 1u);
  EXPECT_NE(items["no link"].id, file);
  EXPECT_EQ(items["alias"].kind, ItemKind::file);
  EXPECT_FALSE(*volume->lookup(kRoot, ".HFS+ Private Directory Data\r"));
}

TEST(VolumeOfOthers, saysThatTheTargetOfAHardLinkIsMissing) {
  HandMadeVolume made;
  made.addFolder({.name = u"\0\0\0\0HFS+ Private Data"s, .mode = 0040700});
  made.addFile({.name = u"dangling", .special = 77, .finderInfo = "hlnkhfs+"});
  const auto volume = open(made.make());
  const auto found = volume->lookup(kRoot, "dangling");
  ASSERT_FALSE(found);
  EXPECT_THAT(found.error().message, HasSubstr("hard link to item 77, which is not there"));
}

std::string zlibOf(std::string_view bytes) {
  std::string stream(bytes.size() + 1000, '\0');
  stream.resize(codec::ZlibCompressor(6).compress(std::as_bytes(std::span(bytes)),
                                                  std::as_writable_bytes(std::span(stream))));
  return stream;
}

// What com.apple.decmpfs holds.
std::string compression(std::uint32_t type, std::uint64_t size, std::string_view data = {}) {
  std::string value = "fpmc";
  put(value, type, true);
  put(value, size, true);
  return value.append(data);
}

// A resource fork with one resource, which is a table of blocks.
std::string resourceBlocks(const std::vector<std::string>& blocks) {
  std::string table;
  put(table, static_cast<std::uint32_t>(blocks.size()), true);
  std::size_t at = 4 + 8 * blocks.size();
  for (const auto& block : blocks) {
    put(table, static_cast<std::uint32_t>(at), true);
    put(table, static_cast<std::uint32_t>(block.size()), true);
    at += block.size();
  }
  for (const auto& block : blocks) table += block;
  std::string fork;
  put(fork, std::uint32_t{256});
  put(fork, static_cast<std::uint32_t>(256 + 4 + table.size()));
  put(fork, static_cast<std::uint32_t>(4 + table.size()));
  fork.resize(256);
  put(fork, static_cast<std::uint32_t>(table.size()));
  return fork + table + std::string(50, 'm');
}

class CompressedFiles : public testing::Test {
 protected:
  std::uint32_t add(std::u16string_view name, std::string_view attribute, std::string_view resources = {}) {
    const auto id = made.addFile({.name = std::u16string(name),
                                  .flags = 4,
                                  .ownerFlags = 0x20,
                                  .resources = made.store(resources, resources.empty() ? 0 : 3)});
    made.addAttribute(id, u"com.apple.decmpfs", attribute);
    made.addAttribute(id, u"com.apple.quarantine", "q");
    return id;
  }

  HandMadeVolume made;
};

TEST_F(CompressedFiles, areReadWhereTheAttributeHoldsTheData) {
  const std::string text = lines(20'000);
  const auto plain = add(u"plain", compression(1, 5, "12345"));
  const auto zlib = add(u"zlib", compression(3, text.size(), zlibOf(text)));
  const auto marked = add(u"marked", compression(3, 3,
                                                 "\xFF"
                                                 "abc"));
  const auto empty = add(u"empty", compression(3, 0, ""));
  const auto volume = open(made.make());
  EXPECT_EQ(dataOf(*volume, plain), "12345");
  EXPECT_EQ(dataOf(*volume, zlib), text);
  EXPECT_EQ(dataOf(*volume, zlib, 19'990, 5), text.substr(19'990, 5));
  EXPECT_EQ(dataOf(*volume, marked), "abc");
  EXPECT_EQ(dataOf(*volume, empty), "");
  EXPECT_EQ(volume->item(zlib)->size, text.size());
  EXPECT_THAT(*volume->attributeNames(zlib), ElementsAre("user.com.apple.quarantine"));
  EXPECT_EQ(attributeOf(*volume, zlib, "user.com.apple.decmpfs"), "none");
}

TEST_F(CompressedFiles, areReadBlockByBlockFromTheResourceFork) {
  const std::string text = lines(3 * 65'536 + 100);
  std::vector<std::string> blocks;
  for (std::size_t at = 0; at < text.size(); at += 65'536) blocks.push_back(zlibOf(text.substr(at, 65'536)));
  blocks[1] = "\xFF" + text.substr(65'536, 65'536);
  const auto id = add(u"blocks", compression(4, text.size()), resourceBlocks(blocks));
  const auto volume = open(made.make());
  EXPECT_EQ(volume->item(id)->size, text.size());
  EXPECT_EQ(dataOf(*volume, id), text);
  EXPECT_EQ(dataOf(*volume, id, 65'530, 10), text.substr(65'530, 10));
  EXPECT_EQ(dataOf(*volume, id, text.size() - 3, 10), text.substr(text.size() - 3));
  EXPECT_THAT(*volume->attributeNames(id), ElementsAre("user.com.apple.quarantine"));
  EXPECT_EQ(attributeOf(*volume, id, "user.com.apple.ResourceFork"), "none");
}

TEST_F(CompressedFiles, areRefusedByTheNumberOfATypeThatIsNotKnown) {
  const auto id = add(u"lzfse", compression(12, 77), resourceBlocks({"x"}));
  const auto volume = open(made.make());
  EXPECT_EQ(volume->item(id)->size, 77u);
  std::array<std::byte, 10> bytes;
  const auto read = volume->read(id, 0, bytes);
  ASSERT_FALSE(read);
  EXPECT_THAT(read.error().message, HasSubstr("type 12"));
}

TEST_F(CompressedFiles, areRefusedWhereTheyContradictThemselves) {
  const std::string text = lines(70'000);
  const std::vector<std::string> blocks{zlibOf(text.substr(0, 65'536)), zlibOf(text.substr(65'536))};
  std::string outside = resourceBlocks(blocks);
  outside.replace(256 + 4 + 4, 4, "\xFF\xFF\xFF\x7F");
  const std::vector<std::uint32_t> ids{
      add(u"1", compression(4, 65'536), resourceBlocks(blocks)),
      add(u"2", compression(4, 70'001), resourceBlocks(blocks)),
      add(u"3", compression(4, 70'000), outside),
      add(u"4", compression(4, 70'000), "short"),
      add(u"5", compression(4, 70'000)),
      add(u"6", compression(3, 100, zlibOf(lines(99)))),
      add(u"7", compression(3, 1'000'000'000, zlibOf(lines(99)))),
      add(u"8", compression(3, 100)),
      add(u"9", compression(1, 100, "123")),
      add(u"10", "fpm"),
  };
  const auto volume = open(made.make());
  std::string bytes(80'000, '\0');
  for (const auto id : ids) {
    const auto read = volume->read(id, 0, std::as_writable_bytes(std::span(bytes)));
    ASSERT_FALSE(read) << id;
    EXPECT_THAT(read.error().message, HasSubstr("damaged")) << id;
  }
}

TEST(VolumeOfOthers, tellsCasesApartOnlyWhereItsCatalogDoes) {
  HandMadeVolume binary;
  binary.keyCompareType = 0xBC;
  for (const auto* name : {u"File", u"file", u"ZEBRA", u"ant"}) binary.addFile({.name = name});
  const auto sensitive = open(binary.make());
  EXPECT_TRUE(sensitive->facts().isCaseSensitive);
  EXPECT_EQ(itemsOf(*sensitive, kRoot).size(), 4u);
  EXPECT_NE((*sensitive->lookup(kRoot, "File"))->id, (*sensitive->lookup(kRoot, "file"))->id);

  HandMadeVolume folding;
  folding.keyCompareType = 0xCF;
  for (const auto* name : {u"File", u"ZEBRA", u"ant"}) folding.addFile({.name = name});
  const auto insensitive = open(folding.make());
  EXPECT_FALSE(insensitive->facts().isCaseSensitive);
  EXPECT_EQ(itemsOf(*insensitive, kRoot).size(), 3u);
}

TEST(VolumeOfOthers, givesEveryNameOnceAndOnlyNamesThatFilesCanHave) {
  HandMadeVolume made;
  made.keyCompareType = 0xBC;
  const auto ohm = made.addFile({.name = u"\u2126"});
  const auto omega = made.addFile({.name = u"\u03A9"});
  const auto composed = made.addFile({.name = u"\u00FC"});
  const auto decomposed = made.addFile({.name = u"u\u0308"});
  made.addFile({.name = u"."});
  made.addFile({.name = u".."});
  made.addFile({.name = u"a:b"});
  const auto slash = made.addFile({.name = u"a/b"});
  made.addFile({.name = u"nul\0"s});
  made.addFile({.name = u"half \xD800"s});
  made.addFile({.name = u"half \xD801"s});
  const auto volume = open(made.make());
  auto items = itemsOf(*volume, kRoot);
  EXPECT_EQ(items.size(), 11u);
  EXPECT_EQ(items["\u03A9"].id, omega);
  EXPECT_EQ(items["\u2126"].id, ohm);
  EXPECT_EQ(items["\u00FC"].id, decomposed);
  EXPECT_EQ((*volume->lookup(kRoot, "u\u0308"))->id, decomposed);
  EXPECT_EQ(items["a:b"].id, slash);
  EXPECT_TRUE(items.contains("nul\u2400"));
  EXPECT_EQ(std::ranges::count_if(items, [&](const auto& i) { return i.second.id == composed; }), 1);
  for (const auto& [name, item] : items) {
    EXPECT_NE(name, ".");
    EXPECT_NE(name, "..");
    EXPECT_EQ(name.find_first_of("/\0"s), std::string::npos) << name;
  }
}

TEST(VolumeOfOthers, neverTakesANameFromTheVolumeThatLeadsOutOfTheFolder) {
  const auto withName = [](std::string_view name) {
    std::string kept;
    put(kept, std::uint32_t{1});
    put(kept, static_cast<std::uint32_t>(name.size()));
    return kept.append(name);
  };
  HandMadeVolume made;
  int number = 0;
  for (const auto* name : {"../../etc/passwd", "..", ".", "", "other"}) {
    const auto id = made.addFile(
        {.name = u"stored " + std::u16string(1, u'0' + static_cast<char16_t>(number++)), .flags = 4});
    made.addAttribute(id, u"stashwick.original", withName(name));
  }
  made.addFile({.name = u"other"});
  const auto volume = open(made.make());
  std::vector<std::string> names;
  for (const auto& [name, item] : itemsOf(*volume, kRoot)) names.push_back(name);
  EXPECT_THAT(names,
              UnorderedElementsAre("stored 0", "stored 1", "stored 2", "stored 3", "stored 4", "other"));
}

// 600 records of eight extents are more than a leaf of the overflow file holds.
TEST(VolumeOfOthers, readsFilesWhoseExtentsGoOnInTheOverflowFile) {
  HandMadeVolume made;
  const std::string text = lines(5'000 * HandMadeVolume::kBlockBytes - 9);
  const std::string other = lines(20 * HandMadeVolume::kBlockBytes);
  const auto file = made.addFile(
      {.name = u"scattered", .data = made.store(text, 5'000), .resources = made.store(other, 20)});
  made.catalogExtents = 8;
  const auto volume = open(made.make());
  EXPECT_TRUE(dataOf(*volume, file, 0, text.size() + 100) == text);
  EXPECT_EQ(dataOf(*volume, file, 10'000'000, 50), text.substr(10'000'000, 50));
  EXPECT_TRUE(attributeOf(*volume, file, "user.com.apple.ResourceFork") == other);
}

TEST(VolumeOfOthers, readsACatalogWhoseExtentsGoOnInTheOverflowFile) {
  HandMadeVolume made;
  for (int i = 0; i < 2'000; ++i) {
    const std::string digits = std::to_string(i);
    made.addFile({.name = u"file " + std::u16string(digits.begin(), digits.end())});
  }
  made.catalogExtents = 100;
  const auto volume = open(made.make());
  EXPECT_EQ(itemsOf(*volume, kRoot).size(), 2'000u);
}

TEST(VolumeOfOthers, namesAnAttributeThatHasAZeroInItsNameByThePictureOfIt) {
  HandMadeVolume made;
  const auto file = made.addFile({.name = u"file"});
  made.addAttribute(file, std::u16string(u"\0note", 5), "value");
  made.addAttribute(file, u"other", "more");
  const auto volume = open(made.make());
  ASSERT_TRUE(volume);
  EXPECT_THAT(*volume->attributeNames(file), ElementsAre("user.\u2400note", "user.other"));
  EXPECT_EQ(attributeOf(*volume, file, "user.\u2400note"), "value");
}

// As a kernel leaves it that grows the file by blocks, of which two make a node.
TEST(VolumeOfOthers, readsAnAttributesFileThatEndsWithPartOfANode) {
  HandMadeVolume made;
  const auto file = made.addFile({.name = u"file"});
  made.addAttribute(file, u"note", "value");
  made.attributesFileTail = HandMadeVolume::kBlockBytes;
  const auto volume = open(made.make());
  ASSERT_TRUE(volume);
  EXPECT_EQ(attributeOf(*volume, file, "user.note"), "value");
  made.attributesFileTail = 2 * HandMadeVolume::kBlockBytes;
  EXPECT_FALSE(tryOpen(made.make()));
}

TEST(VolumeOfOthers, refusesAFileThatHasOtherBlocksThanItsRecordSays) {
  HandMadeVolume made;
  auto data = made.store(lines(10 * HandMadeVolume::kBlockBytes), 10);
  const auto file = made.addFile({.name = u"file", .data = {data.size, {{4'000'000, 1}}}});
  const auto volume = open(made.make());
  std::array<std::byte, 10> bytes;
  const auto read = volume->read(file, 0, bytes);
  ASSERT_FALSE(read);
  EXPECT_THAT(read.error().message, HasSubstr("blocks outside the volume"));
}

TEST(VolumeOfOthers, readsBytesWithoutBlocksAsZeros) {
  HandMadeVolume made;
  auto data = made.store("front");
  data.size = 10'000;
  const auto file = made.addFile({.name = u"file", .data = data});
  const auto volume = open(made.make());
  EXPECT_EQ(dataOf(*volume, file), "front" + std::string(9'995, '\0'));
}

TEST(VolumeOfOthers, givesItemsWhosePermissionsWereNeverSetTheUsualOnes) {
  HandMadeVolume made;
  made.addFile({.name = u"file", .mode = 0});
  made.addFolder({.name = u"folder", .mode = 0});
  made.addFile({.name = u"set", .mode = 0100600});
  const auto volume = open(made.make());
  auto items = itemsOf(*volume, kRoot);
  EXPECT_EQ(items["file"].permissions, 0644);
  EXPECT_EQ(items["folder"].permissions, 0755);
  EXPECT_EQ(items["file"].user, 99u);
  EXPECT_EQ(items["file"].group, 99u);
  EXPECT_EQ(items["set"].permissions, 0600);
  EXPECT_EQ(items["set"].user, 501u);
}

TEST(VolumeOfOthers, givesDatesThatWereNeverSetAnotherOne) {
  HandMadeVolume made;
  made.addFile({.name = u"file", .accessed = 0});
  made.addFile({.name = u"old", .created = 0, .modified = 0});
  const auto volume = open(made.make());
  auto items = itemsOf(*volume, kRoot);
  EXPECT_EQ(items["file"].modified.seconds, HandMadeVolume::kDateSince1970);
  EXPECT_EQ(items["file"].accessed.seconds, HandMadeVolume::kDateSince1970);
  EXPECT_EQ(items["old"].modified.seconds, 0);
}

TEST(VolumeOfOthers, readsDevicesOfEightAndTwentyFourBits) {
  HandMadeVolume made;
  made.addFile({.name = u"tty", .mode = 0020620, .special = 0x04000040});
  made.addFile({.name = u"far", .mode = 0060620, .special = 0xFFFFFFFF});
  const auto volume = open(made.make());
  auto items = itemsOf(*volume, kRoot);
  EXPECT_EQ(items["tty"].kind, ItemKind::characterDevice);
  EXPECT_EQ(items["tty"].device, 4u << 20 | 64);
  EXPECT_EQ(items["far"].device, 255u << 20 | 0xFFFFF);
}

TEST(VolumeOfOthers, showsAttributesResourceForksAndFinderInfo) {
  HandMadeVolume made;
  const std::string value = lines(30 * HandMadeVolume::kBlockBytes);
  const auto file = made.addFile(
      {.name = u"file", .flags = 4, .finderInfo = "TEXTttxt", .resources = made.store("resources")});
  made.addAttribute(file, u"com.apple.quarantine", "q");
  made.addAttribute(file, u"security.x", "s");
  made.addAttribute(file, u"z long", made.store(value, 20));
  const auto link = made.addFile(
      {.name = u"link", .mode = 0120755, .finderInfo = "slnkrhap", .data = made.store("../target\0rest"s)});
  const auto dated = made.addFile({.name = u"dated", .finderInfo = std::string(20, '\0') + "date"});
  const auto volume = open(made.make());
  EXPECT_THAT(*volume->attributeNames(file),
              ElementsAre("user.com.apple.quarantine", "security.x", "user.z long",
                          "user.com.apple.FinderInfo", "user.com.apple.ResourceFork"));
  EXPECT_EQ(attributeOf(*volume, file, "user.com.apple.quarantine"), "q");
  EXPECT_TRUE(attributeOf(*volume, file, "user.z long") == value);
  EXPECT_EQ(attributeOf(*volume, file, "user.com.apple.FinderInfo"), "TEXTttxt" + std::string(24, '\0'));
  EXPECT_EQ(attributeOf(*volume, file, "user.com.apple.ResourceFork"), "resources");
  EXPECT_EQ(attributeOf(*volume, file, "com.apple.quarantine"), "none");
  EXPECT_THAT(*volume->attributeNames(link), IsEmpty());
  EXPECT_EQ(*volume->linkTarget(link), "../target");
  EXPECT_THAT(*volume->attributeNames(dated), IsEmpty());
}

TEST(VolumeOfOthers, refusesMoreAttributesThanAnySystemAsksFor) {
  HandMadeVolume made;
  const auto file = made.addFile({.name = u"file", .flags = 4});
  for (int i = 0; i <= 1 << 14; ++i) {
    const std::string number = std::to_string(i);
    made.addAttribute(file, std::u16string(number.begin(), number.end()), "x");
  }
  const auto names = open(made.make())->attributeNames(file);
  ASSERT_FALSE(names);
  EXPECT_THAT(names.error().message, HasSubstr("more than 16384 attributes"));
}

TEST(VolumeOfOthers, isFoundInsideTheOlderVolumeThatWrapsIt) {
  HandMadeVolume made;
  made.addFile({.name = u"inside"});
  const auto inner = made.make();
  std::vector<std::byte> disk(HandMadeVolume::kBlockBytes * 4);
  const auto set = [&](std::size_t at, auto value) { base::storeBigEndian(disk.data() + 1024 + at, value); };
  set(0x00, std::uint16_t{0x4244});
  set(0x12, static_cast<std::uint16_t>(inner.size() / 4096));
  set(0x14, std::uint32_t{4096});
  set(0x1C, std::uint16_t{16});
  set(0x7C, std::uint16_t{0x482B});
  set(0x7E, std::uint16_t{2});
  set(0x80, static_cast<std::uint16_t>(inner.size() / 4096));
  disk.insert(disk.end(), inner.begin(), inner.end());
  disk.resize(disk.size() + 4096);
  const auto volume = open(std::move(disk));
  ASSERT_TRUE(volume);
  EXPECT_THAT(itemsOf(*volume, kRoot), ElementsAre(Pair("inside", testing::_)));
}

class JournaledVolume : public testing::Test {
 protected:
  static constexpr std::size_t kJournalBytes = 32'768;
  static constexpr std::size_t kHeadBytes = 512;
  static constexpr std::size_t kListBytes = 4096;

  struct Block {
    std::uint64_t number;  // of 512 bytes each
    std::string bytes;
  };

  static std::uint32_t checksum(std::string_view bytes) {
    std::uint32_t sum = 0;
    for (const char c : bytes) sum = sum << 8 ^ (sum + static_cast<unsigned char>(c));
    return ~sum;
  }
  void setSum(std::string& bytes, std::size_t at, std::size_t over) const {
    std::string sum;
    put(sum, checksum(std::string_view(bytes).substr(0, over)), isLittleEndian);
    bytes.replace(at, 4, sum);
  }

  std::string listOf(const std::vector<Block>& blocks) const {
    std::string list;
    std::size_t used = kListBytes;
    for (const Block& block : blocks) used += block.bytes.size();
    put(list, std::uint16_t{255}, isLittleEndian);
    put(list, static_cast<std::uint16_t>(blocks.size() + 1), isLittleEndian);
    put(list, static_cast<std::uint32_t>(used), isLittleEndian);
    list.resize(32);
    for (const Block& block : blocks) {
      put(list, block.number, isLittleEndian);
      put(list, static_cast<std::uint32_t>(block.bytes.size()), isLittleEndian);
      put(list, std::uint32_t{0}, isLittleEndian);
    }
    list.resize(kListBytes);
    setSum(list, 8, 32);
    for (const Block& block : blocks) list += block.bytes;
    return list;
  }

  // Transactions from `start` on, around the end of the journal.
  std::string journal(std::uint64_t start, const std::string& transactions) const {
    const auto place = [&](std::uint64_t at) {
      return kHeadBytes + (at - kHeadBytes) % (kJournalBytes - kHeadBytes);
    };
    std::string head;
    put(head, std::uint32_t{0x4A4E4C78}, isLittleEndian);
    put(head, std::uint32_t{0x12345678}, isLittleEndian);
    put(head, start, isLittleEndian);
    put(head, place(start + transactions.size()), isLittleEndian);
    put(head, std::uint64_t{kJournalBytes}, isLittleEndian);
    put(head, std::uint32_t{kListBytes}, isLittleEndian);
    put(head, std::uint32_t{0}, isLittleEndian);
    put(head, std::uint32_t{kHeadBytes}, isLittleEndian);
    setSum(head, 36, 44);
    std::string bytes = head + std::string(kJournalBytes - head.size(), '\0');
    for (std::size_t i = 0; i < transactions.size(); ++i) bytes[place(start + i)] = transactions[i];
    return bytes;
  }

  // A volume whose one file is old on disk.
  std::vector<std::byte> volumeWith(
      const std::function<std::string(std::uint64_t oldFile)>& makeJournal) const {
    HandMadeVolume made;
    const auto data = made.store(std::string(3 * 4096, 'o'));
    made.addFile({.name = u"file", .data = data});
    const auto kept = made.store(makeJournal(std::uint64_t{data.extents[0].firstBlock} * 8));
    std::string info;
    put(info, std::uint32_t{1});
    info.resize(36);
    put(info, std::uint64_t{kept.extents[0].firstBlock} * HandMadeVolume::kBlockBytes);
    put(info, std::uint64_t{kJournalBytes});
    const auto infoFork = made.store(info);
    made.addFile({.name = u".journal", .data = kept});
    made.addFile({.name = u".journal_info_block", .data = infoFork});
    made.journalInfoBlock = infoFork.extents[0].firstBlock;
    made.attributes = attributes;
    made.lastMountedVersion = lastMountedVersion;
    return made.make();
  }
  static std::string fileOf(const Volume& volume) {
    auto items = itemsOf(volume, kRoot);
    EXPECT_THAT(items, ElementsAre(Pair("file", testing::_)));
    return dataOf(volume, items["file"].id);
  }

  bool isLittleEndian = true;
  std::uint32_t attributes = 0x2000;
  std::uint32_t lastMountedVersion = 0x4846534A;
};

TEST_F(JournaledVolume, isReadAsItIsWhereTheJournalIsEmpty) {
  const auto volume = open(volumeWith([&](auto) { return journal(5'120, ""); }));
  EXPECT_EQ(fileOf(*volume), std::string(3 * 4096, 'o'));
}

TEST_F(JournaledVolume, isReadAsItsJournalLeavesIt) {
  for (const bool little : {false, true}) {
    isLittleEndian = little;
    const auto volume = open(volumeWith([&](std::uint64_t at) {
      return journal(512, listOf({{at, std::string(4096, 'a')}, {at + 8, std::string(4096, 'b')}}) +
                              listOf({{at + 4, std::string(1024, 'c')}, {~0ull, std::string(512, 'x')}}));
    }));
    EXPECT_EQ(fileOf(*volume), std::string(2048, 'a') + std::string(1024, 'c') + std::string(1024, 'a') +
                                   std::string(4096, 'b') + std::string(4096, 'o'));
  }
}

TEST_F(JournaledVolume, isReadFromAJournalThatGoesAroundItsEnd) {
  for (const std::uint64_t start :
       {kJournalBytes, kJournalBytes - 512, kJournalBytes - 4096, kJournalBytes - 5120}) {
    const auto volume = open(volumeWith([&](std::uint64_t at) {
      return journal(start, listOf({{at, lines(4096)}}) + listOf({{at + 16, std::string(4096, 'd')}}));
    }));
    EXPECT_EQ(fileOf(*volume), lines(4096) + std::string(4096, 'o') + std::string(4096, 'd')) << start;
  }
}

TEST_F(JournaledVolume, isReadWithoutItsJournalWhereThatIsNoLongerItsTruth) {
  const auto transaction = [&](std::uint64_t at) {
    return journal(512, listOf({{at, std::string(512, 'n')}}));
  };
  attributes = 0x2100;
  EXPECT_EQ(fileOf(*open(volumeWith(transaction))), std::string(3 * 4096, 'o'));
  attributes = 0x2000;
  lastMountedVersion = 0x31302E30;
  EXPECT_EQ(fileOf(*open(volumeWith(transaction))), std::string(3 * 4096, 'o'));
}

TEST_F(JournaledVolume, isRefusedWhereItsJournalIsDamaged) {
  const auto isRefused = [&](const std::function<void(std::string&)>& damage) {
    const auto volume = tryOpen(volumeWith([&](std::uint64_t at) {
      auto bytes = journal(512, listOf({{at, std::string(4096, 'n')}}));
      damage(bytes);
      return bytes;
    }));
    return !volume && volume.error().message.starts_with("the journal is damaged: ");
  };
  EXPECT_FALSE(isRefused([](std::string&) {}));
  for (const std::size_t at : {0, 5, 9, 30, 33, 41, 512 + 2, 512 + 5, 512 + 9, 512 + 20})
    EXPECT_TRUE(isRefused([at](std::string& bytes) { bytes[at] = static_cast<char>(bytes[at] ^ 0x10); }))
        << at;
  EXPECT_TRUE(isRefused([](std::string& bytes) { bytes[512 + 32 + 7] = 0x7F; }));
}

}  // namespace
}  // namespace image
