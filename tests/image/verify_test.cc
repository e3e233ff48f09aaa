#include "image/verify.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>

#include "base/byte_order.h"
#include "image/create.h"
#include "image/open.h"
#include "tests/tools/scratch_folder.h"

namespace image {
namespace {

using testing::HasSubstr;

std::vector<std::byte> bytesOf(const std::string& text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

base::Result<hfs::VolumeCounts> check(std::vector<std::byte> file) {
  auto image = OpenedImage::plain(std::make_unique<base::MemoryRandomAccess>(std::move(file)));
  if (!image) return image.error();
  return checkImage(**image, 1, nullptr);
}

class VerifyImage : public testing::Test {
 protected:
  VerifyImage() {
    scratch.write("source/file", "content");
    scratch.write("source/folder/other", "more");
  }
  std::vector<std::byte> create(Format format = Format::zlib) {
    const auto report = createImage(
        {.source = scratch / "source", .volumeName = "V", .image = scratch / "v.dmg", .format = format});
    EXPECT_TRUE(report) << report.error().message;
    return bytesOf(readFile(scratch / "v.dmg"));
  }
  // The offset of the volume in an image of raw chunks, where its bytes stand as they are.
  static std::size_t volumeOffset(const std::vector<std::byte>& file) {
    const auto image = *OpenedImage::plain(std::make_unique<base::MemoryRandomAccess>(file));
    for (const auto& table : image->udif()->tables())
      if (table.name.find("Apple_HFS") != std::string::npos)
        return image->udif()->fileOffset(table, table.runs.at(0));
    return 0;
  }

  ScratchFolder scratch;
};

TEST_F(VerifyImage, countsWhatIsInASoundImage) {
  const auto counts = check(create());
  ASSERT_TRUE(counts) << counts.error().message;
  EXPECT_EQ(counts->files, 2u);
  EXPECT_EQ(counts->folders, 1u);
}

// What a reader has no use for, or may not rely on, is left unchecked on purpose: reserved fields, padding
// and attributes in the trailer, white space and unused entries of the property list.
TEST_F(VerifyImage, noticesAFlippedByteAnywhereInTheDataFork) {
  const auto file = create();
  const auto image = *OpenedImage::plain(std::make_unique<base::MemoryRandomAccess>(file));
  const auto& trailer = image->udif()->trailer();
  for (std::size_t at = 0; at < trailer.dataForkLength; ++at) {
    auto flipped = file;
    flipped[at] ^= std::byte{0x10};
    EXPECT_FALSE(check(flipped)) << "at " << at;
  }
}

TEST_F(VerifyImage, noticesAFlippedByteInEveryFieldOfTheTrailerThatMatters) {
  const auto file = create();
  const std::size_t trailer = file.size() - udif::kTrailerBytes;
  // (The last byte of the property list's length only adds or drops a line end.) Signature, version, header
  // size; data fork; its sum; property list; master sum.
  for (const auto& [from, to] :
       std::map<std::size_t, std::size_t>{{0, 12}, {24, 40}, {80, 92}, {216, 231}, {352, 364}})
    for (std::size_t at = from; at < to; ++at) {
      auto flipped = file;
      flipped[trailer + at] ^= std::byte{0x01};
      EXPECT_FALSE(check(flipped)) << "at " << at;
    }
}

TEST_F(VerifyImage, noticesAFileThatIsCutShort) {
  const auto file = create();
  for (const std::size_t size : {std::size_t{0}, std::size_t{511}, file.size() / 2, file.size() - 1})
    EXPECT_FALSE(check({file.begin(), file.begin() + static_cast<std::ptrdiff_t>(size)}));
}

TEST_F(VerifyImage, livesThroughAnyDamageOutsideTheDataFork) {
  const auto file = create();
  const auto fork = (*OpenedImage::plain(std::make_unique<base::MemoryRandomAccess>(file)))
                        ->udif()
                        ->trailer()
                        .dataForkLength;
  std::mt19937 random(5);
  int noticed = 0;
  for (int i = 0; i < 2000; ++i) {
    auto damaged = file;
    for (int flips = 0; flips < 4; ++flips)
      damaged[fork + random() % (file.size() - fork)] = static_cast<std::byte>(random());
    if (!check(damaged)) ++noticed;
  }
  EXPECT_GT(noticed, 1000);
}

// A fault in a volume whose checksums are right all the same.
class VerifyVolume : public VerifyImage {
 protected:
  VerifyVolume() {
    const auto file = create(Format::raw);
    const auto image = *OpenedImage::plain(std::make_unique<base::MemoryRandomAccess>(file));
    for (const auto& table : image->udif()->tables()) {
      if (table.name.find("Apple_HFS") == std::string::npos) continue;
      volume.resize(table.sectorCount * 512);
      EXPECT_TRUE(image->disk().read(table.firstSector * 512, volume));
    }
  }
  base::Result<hfs::VolumeCounts> checkNow() const {
    const base::SpanRandomAccess bytes(volume);
    return hfs::checkVolume(block::FileDisk(bytes));
  }
  void expectFault(const std::string& text) const {
    const auto counts = checkNow();
    ASSERT_FALSE(counts);
    EXPECT_THAT(counts.error().message, HasSubstr(text));
  }
  // The place of a name's second appearance or later in UTF-16, in the catalog.
  std::size_t find(std::string_view name, int appearance) const {
    std::string utf16;
    for (const char c : name) utf16 += {'\0', c};
    const std::string_view text(reinterpret_cast<const char*>(volume.data()), volume.size());
    std::size_t at = text.find(utf16);
    while (--appearance > 0) at = text.find(utf16, at + 1);
    return at;
  }

  std::vector<std::byte> volume;
};

TEST_F(VerifyVolume, isSoundAsItWasWritten) { ASSERT_TRUE(checkNow()) << checkNow().error().message; }

TEST_F(VerifyVolume, noticesAStaleAlternateHeader) {
  volume[volume.size() - 1024 + 44] ^= std::byte{1};
  expectFault("alternate volume header");
}

TEST_F(VerifyVolume, noticesAWrongFileCount) {
  volume[1024 + 35] ^= std::byte{1};
  expectFault("counts other files");
}

TEST_F(VerifyVolume, noticesAWrongFreeCount) {
  volume[1024 + 51] ^= std::byte{1};
  expectFault("counts other free blocks");
}

TEST_F(VerifyVolume, noticesABitTooMuchInTheAllocationFile) {
  const std::size_t total = base::loadBigEndian<std::uint32_t>(volume.data() + 1024 + 44);
  volume[4096 + (total - 3) / 8] |= std::byte{0xFF};
  expectFault("counts other free blocks");
}

TEST_F(VerifyVolume, noticesAThreadWithAnotherName) {
  volume[find("other", 2) + 1] = std::byte{'O'};
  expectFault("threads are not those");
}

TEST_F(VerifyVolume, noticesKeysOutOfOrder) {
  volume[find("folder", 1) + 1] = std::byte{'e'};
  EXPECT_FALSE(checkNow());
  volume[find("folder", 1) + 1] = std::byte{'a'};
  expectFault("");
}

// Most bytes of the metadata carry a meaning; those that do not are dates, owners, modes, Finder information,
// clump sizes and whatever lies behind the last record of a node.
TEST_F(VerifyVolume, neverReadsOutsideAVolumeWithDamage) {
  std::mt19937 random(11);
  const std::size_t metadata = std::min<std::size_t>(volume.size(), 40 * 1024);
  int noticed = 0;
  for (int i = 0; i < 3000; ++i) {
    auto damaged = volume;
    for (int flips = 0; flips < 3; ++flips)
      damaged[1024 + random() % (metadata - 1024)] = static_cast<std::byte>(random());
    const base::SpanRandomAccess bytes(damaged);
    if (!hfs::checkVolume(block::FileDisk(bytes))) ++noticed;
  }
  EXPECT_GT(noticed, 100);
}

}  // namespace
}  // namespace image
