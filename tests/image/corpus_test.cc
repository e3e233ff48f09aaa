#include <gtest/gtest.h>

#include "image/open.h"
#include "image/verify.h"
#include "image/volume.h"

namespace image {
namespace {

constexpr const char* kCorpus = STASHWICK_SOURCE_DIR "/tests/corpus/image/";

base::Result<std::unique_ptr<OpenedImage>> openFromCorpus(const std::string& name) {
  const base::Secret password("secret");
  return OpenedImage::open(kCorpus + name, &password);
}

struct Sound {
  const char* name;
  std::uint32_t files;
  std::uint32_t folders;
};

class SoundCorpus : public testing::TestWithParam<Sound> {};

TEST_P(SoundCorpus, isOpenedAndChecked) {
  auto image = openFromCorpus(GetParam().name);
  ASSERT_TRUE(image) << image.error().message;
  const auto counts = checkImage(**image, 1, nullptr);
  ASSERT_TRUE(counts) << counts.error().message;
  EXPECT_EQ(counts->files, GetParam().files);
  EXPECT_EQ(counts->folders, GetParam().folders);
  const auto volume = Volume::open(*std::move(image), {});
  ASSERT_TRUE(volume) << volume.error().message;
  EXPECT_EQ((*volume)->facts().files, GetParam().files);
}

INSTANTIATE_TEST_SUITE_P(
    Files, SoundCorpus,
    testing::Values(Sound{"volumes/empty.hfs", 0, 0}, Sound{"volumes/mixed.hfs", 6, 2},
                    Sound{"volumes/dirty_journal.hfs", 5, 1}, Sound{"volumes/folder_links.hfs", 6, 4},
                    Sound{"volumes/many_extents.hfs", 13, 6}, Sound{"volumes/trailing_half_block.hfs", 3, 1},
                    Sound{"images/resource_fork.dmg", 3, 1}, Sound{"images/binary_list.dmg", 3, 1},
                    Sound{"images/trailer_first.dmg", 3, 1}, Sound{"images/zeros_left_out.dmg", 3, 1},
                    Sound{"containers/second_key_entry.dmg", 3, 1}));

TEST(Corpus, hasAVolumeThatIsReadByItsAlternateHeaderButNotSound) {
  auto image = openFromCorpus("volumes/alternate_header_only.hfs");
  ASSERT_TRUE(image) << image.error().message;
  EXPECT_FALSE(checkImage(**image, 1, nullptr));
  const auto volume = Volume::open(*std::move(image), {});
  ASSERT_TRUE(volume) << volume.error().message;
  const auto item = (*volume)->lookup((*volume)->rootID(), "text");
  ASSERT_TRUE(item && *item);
  EXPECT_EQ((*item)->size, 3000u);
}

TEST(Corpus, hasADiskOfSectorsOf4096Bytes) {
  const auto image = openFromCorpus("disks/guid_4096");
  ASSERT_TRUE(image) << image.error().message;
  EXPECT_EQ((*image)->hfsPlusVolume(), (block::Extent{8 * 4096, 4096}));
}

}  // namespace
}  // namespace image
