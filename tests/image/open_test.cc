#include "image/open.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

#include "base/byte_order.h"
#include "image/verify.h"
#include "tests/image/hand_made_image.h"
#include "tests/tools/scratch_folder.h"

namespace image {
namespace {

using testing::HasSubstr;
using udif::RunType;
using Bytes = std::vector<std::byte>;

base::Result<std::unique_ptr<OpenedImage>> openBytes(const Bytes& file) {
  return OpenedImage::plain(std::make_unique<base::MemoryRandomAccess>(file));
}

std::string refusal(const Bytes& file) {
  const auto opened = openBytes(file);
  return opened ? "it was opened" : opened.error().message;
}

// Boot blocks, a volume header's signature, and text.
Bytes bareVolume(std::size_t sectors = 200) {
  auto bytes = textSectors(sectors, 1);
  std::fill_n(bytes.begin(), 1536, std::byte{0});
  bytes[1024] = std::byte{'H'};
  bytes[1025] = std::byte{'+'};
  return bytes;
}

Bytes diskBytes(const OpenedImage& image) {
  Bytes bytes(image.disk().size());
  const auto read = image.disk().readChecked(0, bytes);
  EXPECT_TRUE(read) << read.error().message;
  return bytes;
}

Bytes wholeDisk(RunType type, const Bytes& plain, const HandMadeLayout& layout = {}) {
  return handMadeImage({{.name = "whole disk (Apple_HFS : 0)",
                         .sectorCount = plain.size() / 512,
                         .chunks = {{type, 0, plain}}}},
                       layout);
}

// The image with another text in place of one in its property list, and the list's new length.
Bytes withListChanged(Bytes file, const std::string& from, const std::string& to) {
  const auto trailer = file.size() - udif::kTrailerBytes;
  const auto offset = base::loadBigEndian<std::uint64_t>(&file[trailer + 216]);
  const auto length = base::loadBigEndian<std::uint64_t>(&file[trailer + 224]);
  std::string list(reinterpret_cast<const char*>(&file[offset]), length);
  for (std::size_t at = list.find(from); at != std::string::npos; at = list.find(from, at + to.size()))
    list.replace(at, from.size(), to);
  Bytes changed(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(offset));
  const auto text = std::as_bytes(std::span(list));
  changed.insert(changed.end(), text.begin(), text.end());
  changed.insert(changed.end(), file.end() - udif::kTrailerBytes, file.end());
  base::storeBigEndian(&changed[changed.size() - udif::kTrailerBytes + 224], std::uint64_t{list.size()});
  return changed;
}

TEST(OpenImage, findsTheVolumeInImagesOfEveryCompression) {
  for (const RunType type : {RunType::raw, RunType::adc, RunType::zlib, RunType::bzip2, RunType::lzma}) {
    const auto opened = openBytes(wholeDisk(type, bareVolume()));
    ASSERT_TRUE(opened) << opened.error().message;
    ASSERT_NE((*opened)->udif(), nullptr);
    EXPECT_EQ((*opened)->hfsPlusVolume(), (block::Extent{0, 200 * 512}));
    EXPECT_EQ(diskBytes(**opened), bareVolume());
  }
}

// A file on a medium with a bad place.
class FileWithBadPlace : public base::MemoryRandomAccess {
 public:
  FileWithBadPlace(const Bytes& file, std::uint64_t bad) : MemoryRandomAccess(file), bad_(bad) {}
  bool read(std::uint64_t offset, std::span<std::byte> into) const override {
    const bool isHit = bad_ >= offset && bad_ - offset < into.size();
    return !isHit && MemoryRandomAccess::read(offset, into);
  }

 private:
  std::uint64_t bad_;
};

TEST(OpenImage, saysThatTheEndCannotBeReadRatherThanThatItIsNoImage) {
  const auto image = wholeDisk(RunType::zlib, bareVolume());
  const auto bare = bareVolume();
  const auto refusalWithBad = [](const Bytes& file, std::uint64_t fromEnd) {
    const auto opened = OpenedImage::plain(std::make_unique<FileWithBadPlace>(file, file.size() - fromEnd));
    return opened ? "it was opened" : opened.error().message;
  };
  EXPECT_EQ(refusalWithBad(image, udif::kTrailerBytes), "its trailer cannot be read");
  EXPECT_EQ(refusalWithBad(image, 1), "its trailer cannot be read");
  EXPECT_EQ(refusalWithBad(bare, udif::kTrailerBytes), "its trailer cannot be read");
  EXPECT_EQ(refusalWithBad(bare, 1), "its end cannot be read");
}

TEST(OpenImage, takesADiskWithoutATrailer) {
  const auto opened = openBytes(bareVolume());
  ASSERT_TRUE(opened) << opened.error().message;
  EXPECT_EQ((*opened)->udif(), nullptr);
  EXPECT_EQ((*opened)->partitionScheme(), block::PartitionScheme::none);
  EXPECT_EQ((*opened)->hfsPlusVolume(), (block::Extent{0, 200 * 512}));
  EXPECT_EQ(diskBytes(**opened), bareVolume());
}

TEST(OpenImage, checksTheVolumeOfADiskWithoutATrailer) {
  EXPECT_FALSE(checkImage(**openBytes(bareVolume()), 1, nullptr));
}

TEST(OpenImage, refusesWhatIsNoImage) {
  EXPECT_THAT(refusal({}), HasSubstr("too short"));
  EXPECT_THAT(refusal(Bytes(511)), HasSubstr("too short"));
  EXPECT_THAT(refusal(textSectors(10, 1)), HasSubstr("no partition map and no HFS+ volume"));
  auto odd = bareVolume();
  odd.pop_back();
  EXPECT_THAT(refusal(odd), HasSubstr("length is not a number of sectors"));
}

TEST(OpenImage, takesNamesFromWhereTheyAre) {
  const auto file = wholeDisk(RunType::zlib, bareVolume());
  const auto noCFName = withListChanged(file, "<key>CFName</key>", "<key>Else</key>");
  const auto noName = withListChanged(file, "<key>Name</key>", "<key>Else</key>");
  for (const auto& changed : {noCFName, noName}) {
    ASSERT_NE(changed, file);
    const auto opened = openBytes(changed);
    ASSERT_TRUE(opened) << opened.error().message;
    EXPECT_EQ((*opened)->udif()->tables()[0].name, "whole disk (Apple_HFS : 0)");
  }
}

TEST(OpenImage, refusesADamagedResourceFork) {
  auto file = wholeDisk(RunType::zlib, bareVolume());
  const auto trailer = file.size() - udif::kTrailerBytes;
  base::storeBigEndian(&file[trailer + 48], std::uint64_t{1000});
  base::storeBigEndian(&file[trailer + 216], std::uint64_t{0});
  base::storeBigEndian(&file[trailer + 224], std::uint64_t{0});
  EXPECT_THAT(refusal(file), HasSubstr("its resource fork is damaged"));
}

TEST(OpenImage, refusesAContainerOfVersionOne) {
  auto file = Bytes(4000);
  const std::string_view end = "cdsaencr";
  const auto bytes = std::as_bytes(std::span(end));
  file.insert(file.end(), bytes.begin(), bytes.end());
  EXPECT_THAT(refusal(file), HasSubstr("version 1 is not supported"));
}

TEST(OpenImage, readsPastWhatTheTrailerCounts) {
  auto file = wholeDisk(RunType::zlib, bareVolume());
  base::storeBigEndian(&file[file.size() - udif::kTrailerBytes + 492], std::uint64_t{3});
  const auto opened = openBytes(file);
  ASSERT_TRUE(opened) << opened.error().message;
  EXPECT_EQ(diskBytes(**opened), bareVolume());
}

TEST(OpenImage, refusesMoreSectorsThanCanBe) {
  auto file = wholeDisk(RunType::zlib, bareVolume());
  base::storeBigEndian(&file[file.size() - udif::kTrailerBytes + 492], ~std::uint64_t{0});
  EXPECT_THAT(refusal(file), HasSubstr("names bytes that it does not have"));
}

TEST(OpenImage, canBeReadWithOtherBounds) {
  const auto opened = openBytes(wholeDisk(RunType::lzma, bareVolume()));
  ASSERT_TRUE(opened);
  (*opened)->setReading({.cacheBytes = 0, .workers = 1});
  EXPECT_EQ(diskBytes(**opened), bareVolume());
}

TEST(OpenImage, livesThroughAnyDamage) {
  const auto file = wholeDisk(RunType::zlib, bareVolume(20));
  std::mt19937 random(6);
  for (int i = 0; i < 3000; ++i) {
    auto damaged = file;
    for (int flips = 0; flips < 3; ++flips)
      damaged[random() % file.size()] = static_cast<std::byte>(random());
    const auto opened = openBytes(damaged);
    if (!opened) continue;
    Bytes piece(std::min<std::uint64_t>((*opened)->disk().size(), 10'000));
    static_cast<void>((*opened)->disk().read(0, piece));
  }
}

// How another maker might have encrypted it.
struct Encryption {
  crypt::Method method;
  std::uint32_t blockBytes;
  std::uint64_t dataOffset;
  std::uint32_t entriesBefore;
};

crypt::RandomBytes counted() {
  return [random = std::make_shared<std::mt19937>(9)](std::span<std::byte> into) {
    for (auto& b : into) b = static_cast<std::byte>((*random)());
  };
}

// Entries of type 2 (a public key's) go before the one for the password.
Bytes encrypted(const Bytes& plain, const Encryption& encryption) {
  const auto keys = crypt::ContainerKeys::random(encryption.method, counted());
  const crypt::ContainerHeader header{
      .method = encryption.method,
      .blockBytes = encryption.blockBytes,
      .dataBytes = plain.size(),
      .dataOffset = encryption.dataOffset,
      .keyEntries = {crypt::ContainerHeader::wrap(keys, base::Secret("right"), 1000, counted())}};
  auto file = header.encode(std::array<std::byte, 16>{});
  Bytes entries;
  base::ByteWriter out(entries);
  for (std::uint32_t i = 0; i < encryption.entriesBefore; ++i)
    out.put(std::uint32_t{2}).put(std::uint64_t{2000}).put(std::uint64_t{564});
  out.put(std::uint32_t{1}).put(std::uint64_t{3000}).put(std::uint64_t{header.keyEntries[0].size()});
  base::storeBigEndian(&file[72], encryption.entriesBefore + 1);
  std::ranges::copy(entries, file.begin() + 76);
  std::ranges::copy(header.keyEntries[0], file.begin() + 3000);
  auto blocks = plain;
  blocks.resize((plain.size() + encryption.blockBytes - 1) / encryption.blockBytes * encryption.blockBytes);
  keys.encrypt(0, encryption.blockBytes, blocks);
  file.insert(file.end(), blocks.begin(), blocks.end());
  return file;
}

class OpenEncryptedImage : public testing::TestWithParam<Encryption> {
 protected:
  base::Result<std::unique_ptr<OpenedImage>> open(const Bytes& file, std::string_view password) {
    scratch.write("image.dmg", {reinterpret_cast<const char*>(file.data()), file.size()});
    const base::Secret secret(password);
    return OpenedImage::open(scratch / "image.dmg", &secret);
  }
  const ScratchFolder scratch;
};

TEST_P(OpenEncryptedImage, givesItsDiskForTheRightPassword) {
  const auto file = encrypted(wholeDisk(RunType::bzip2, bareVolume()), GetParam());
  const auto opened = open(file, "right");
  ASSERT_TRUE(opened) << opened.error().message;
  EXPECT_EQ(diskBytes(**opened), bareVolume());
  const auto refused = open(file, "wrong");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message, kAuthenticationError);
}

// Its data ends with a whole block, which counts.
TEST_P(OpenEncryptedImage, mayBeADiskWithoutATrailer) {
  const auto opened = open(encrypted(bareVolume(), GetParam()), "right");
  ASSERT_TRUE(opened) << opened.error().message;
  EXPECT_EQ((*opened)->udif(), nullptr);
  EXPECT_EQ(diskBytes(**opened), bareVolume());
}

TEST_P(OpenEncryptedImage, isRefusedWhereItsLastBlockIsCutShort) {
  auto file = encrypted(bareVolume(), GetParam());
  file.pop_back();
  const auto opened = open(file, "right");
  ASSERT_FALSE(opened);
  EXPECT_THAT(opened.error().message, HasSubstr("cut short"));
}

INSTANTIATE_TEST_SUITE_P(Makers, OpenEncryptedImage,
                         testing::Values(Encryption{crypt::Method::aes128, 512, 122'368, 0},
                                         Encryption{crypt::Method::aes256, 512, 122'368, 3},
                                         Encryption{crypt::Method::aes128, 4096, 122'880, 1},
                                         Encryption{crypt::Method::aes256, 4096, 200'000, 2}));

}  // namespace
}  // namespace image
