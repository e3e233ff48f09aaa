#include "store/instance.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::SizeIs;

TEST(BackupInstance, nameLandsInTheDevice) {
  EXPECT_EQ(ZQStashwickInstance::_initWithName("MYSTICK", "/x.dmg", {}, 0, false, nullptr)->device(),
            "MYSTICK");
}

TEST(BackupInstance, answersWhatItWasMadeOf) {
  const auto backup = ZQStashwickInstance::_initWithName("MYSTICK", "/x.dmg", {42}, 8, true, nullptr);
  EXPECT_EQ(backup->path(), "/x.dmg");
  EXPECT_EQ(backup->backupDate(), base::Date{42});
  EXPECT_EQ(backup->size(), 8.0F);
  EXPECT_TRUE(backup->encrypted());
  EXPECT_FALSE(ZQStashwickInstance::_initWithName("", "", {}, 0, false, nullptr)->encrypted());
}

TEST(BackupInstance, holdsItsSizeInSinglePrecision) {
  const auto backup =
      ZQStashwickInstance::_initWithName("", "", {}, static_cast<float>(1'500'000'001), false, nullptr);
  EXPECT_EQ(static_cast<double>(backup->size()), 1'500'000'000.0);
}

TEST(BackupInstance, mayHaveNoListOfFiles) {
  EXPECT_EQ(ZQStashwickInstance::_initWithName("", "", {}, 0, false, nullptr)->files(), nullptr);
}

TEST(BackupInstance, readsItsListOfFilesEachTimeThatItIsAskedForIt) {
  int reads = 0;
  const auto read = [&] {
    ++reads;
    return std::make_shared<const std::vector<base::FileURL>>(std::vector<base::FileURL>{{"/a", false}});
  };
  const auto backup = ZQStashwickInstance::_initWithName("", "", {}, 0, false, read);
  EXPECT_EQ(reads, 0);
  EXPECT_THAT(*backup->files(), SizeIs(1));
  EXPECT_THAT(*backup->files(), SizeIs(1));
  EXPECT_EQ(reads, 2);
}

}  // namespace
